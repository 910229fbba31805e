// Upload registration against a server played by the test below a private /run.
#include "agent/upload.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <future>

#include "tests/support/private_run.h"
#include "tests/support/raw_peer.h"
#include "wire/packet_io.h"

namespace ProcMgr::Agent {
namespace {

using namespace std::chrono_literals;
using Message::UploadResult;
using Tests::PATIENCE;
using Wire::PacketKind;
using Bytes = std::vector<uint8_t>;
using Answered = std::optional<Message::UploadResponse>;

constexpr auto IMPATIENCE = 100ms;

class UploadTest : public PrivateRunTest {
protected:
    void Listen() { listener_.emplace("/run/muxa/server/pmupload"); }
    // The sequence number and the body of the next call; nothing when none comes.
    std::optional<std::pair<uint64_t, Bytes>> Accept() {
        peer_ = listener_->Accept();
        const std::string bytes = peer_.Receive().value_or("");
        const auto packet =
            Wire::DecodePacket({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
        return packet && packet->header.kind == PacketKind::CALL
                   ? std::optional(std::pair(packet->header.sequence,
                                             Bytes(packet->body.begin(), packet->body.end())))
                   : std::nullopt;
    }
    void Send(PacketKind kind, uint64_t sequence, const Bytes& body) const {
        EXPECT_EQ(Wire::SendPacket(peer_.Fd(), {kind, sequence}, body), Wire::SendResult::SENT);
    }

    std::optional<Tests::RawListener> listener_;
    Tests::RawPeer peer_;
};

std::future<Answered> Register(std::chrono::milliseconds timeout) {
    return std::async(std::launch::async, [timeout] {
        return RegisterUpload("me", {"g1", "g2"}, timeout);
    });
}

TEST_F(UploadTest, RegistersWithAServerThatComesLater) {
    EXPECT_FALSE(RegisterUpload("me", {}, 0ms));
    EXPECT_FALSE(RegisterUpload("me", {}, -1ms));
    std::future<Answered> answered = Register(std::chrono::milliseconds::max());
    EXPECT_EQ(answered.wait_for(IMPATIENCE), std::future_status::timeout);
    Listen();
    const auto call = Accept();
    ASSERT_TRUE(call);
    Message::UploadRequest request;
    ASSERT_EQ(Message::DecodeUploadRequest(call->second, request), UploadResult::REGISTERED);
    EXPECT_EQ(request.pid, getpid());
    EXPECT_EQ(request.name, "me");
    EXPECT_EQ(request.path, std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_EQ(request.groups, (std::vector<std::string>{"g1", "g2"}));

    const auto no = Message::EncodeUploadResponse({UploadResult::TOO_MANY, {}}).value();
    const auto yes = Message::EncodeUploadResponse({UploadResult::REGISTERED, {"g1"}}).value();
    Send(PacketKind::RESPONSE, call->first + 1, no);
    Send(PacketKind::REQUEST, call->first, no);
    Send(PacketKind::RESPONSE, call->first, yes);
    const Answered answer = answered.get();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, UploadResult::REGISTERED);
    EXPECT_EQ(answer->groups, std::vector<std::string>{"g1"});
    EXPECT_TRUE(peer_.HasEnded());
}

TEST_F(UploadTest, ASilentOrBrokenServerYieldsNothing) {
    Listen();
    EXPECT_FALSE(RegisterUpload(std::string(128, 'n'), {}, PATIENCE)) << "does not fit";
    EXPECT_FALSE(RegisterUpload("me", {}, IMPATIENCE)) << "does not answer";
    Accept();
    const std::function<void(uint64_t)> answers[] = {
        [this](uint64_t) { peer_.Close(); },
        [this](uint64_t sequence) { Send(PacketKind{4}, sequence, {}); },
        [this](uint64_t sequence) { Send(PacketKind::RESPONSE, sequence, Bytes(4)); },
        [this](uint64_t sequence) {
            Send(PacketKind::RESPONSE, sequence, Bytes(Wire::PACKET_BODY_MAX + 1));
        },
    };
    for (const auto& answer : answers) {
        std::future<Answered> answered = Register(PATIENCE * 2);
        const auto call = Accept();
        ASSERT_TRUE(call);
        answer(call->first);
        EXPECT_EQ(answered.wait_for(PATIENCE), std::future_status::ready) << "ends at once";
        EXPECT_FALSE(answered.get());
    }
}

}  // namespace
}  // namespace ProcMgr::Agent
