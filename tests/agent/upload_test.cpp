// Upload registration against a server played by the test below a private /run.
#include "agent/upload.h"

#include <gtest/gtest.h>
#include <unistd.h>

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
    // The next call; nothing when none comes. Its body is valid until the next Accept.
    std::optional<Wire::Packet> Accept() {
        peer_ = listener_->Accept();
        received_ = peer_.Receive().value_or("");
        const auto* bytes = reinterpret_cast<const uint8_t*>(received_.data());
        const auto packet = Wire::DecodePacket({bytes, received_.size()});
        return packet && packet->header.kind == PacketKind::CALL ? packet : std::nullopt;
    }
    void Send(PacketKind kind, uint64_t sequence, const Bytes& body) const {
        EXPECT_EQ(Wire::SendPacket(peer_.Fd(), {kind, sequence}, body), Wire::SendResult::SENT);
    }

    std::optional<Tests::RawListener> listener_;
    Tests::RawPeer peer_;
    std::string received_;
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
    ASSERT_EQ(Message::DecodeUploadRequest(call->body, request), UploadResult::REGISTERED);
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(request, (Message::UploadRequest{getpid(), "me", program, {"g1", "g2"}}));

    const auto no = Message::EncodeUploadResponse({UploadResult::TOO_MANY, {}}).value();
    const auto yes = Message::EncodeUploadResponse({UploadResult::REGISTERED, {"g1"}}).value();
    const uint64_t sequence = call->header.sequence;
    Send(PacketKind::RESPONSE, sequence + 1, no);
    Send(PacketKind::REQUEST, sequence, no);
    Send(PacketKind::RESPONSE, sequence, yes);
    EXPECT_EQ(answered.get(), (Message::UploadResponse{UploadResult::REGISTERED, {"g1"}}));
    EXPECT_TRUE(peer_.HasEnded());
}

TEST_F(UploadTest, ASilentOrBrokenServerYieldsNothing) {
    Listen();
    EXPECT_FALSE(RegisterUpload(std::string(128, 'n'), {}, PATIENCE)) << "does not fit";
    EXPECT_FALSE(RegisterUpload("me", {}, IMPATIENCE)) << "does not answer";
    Accept();
    const std::pair<PacketKind, Bytes> answers[] = {
        {PacketKind{4}, {}},
        {PacketKind::RESPONSE, Bytes(4)},
        {PacketKind::RESPONSE, Bytes(Wire::PACKET_BODY_MAX + 1)},
        {PacketKind::RESPONSE, {}},  // closes the connection instead
    };
    for (const auto& [kind, body] : answers) {
        std::future<Answered> answered = Register(PATIENCE * 2);
        const auto call = Accept();
        ASSERT_TRUE(call);
        if (kind == PacketKind::RESPONSE && body.empty()) {
            peer_.Close();
        } else {
            Send(kind, call->header.sequence, body);
        }
        EXPECT_EQ(answered.wait_for(PATIENCE), std::future_status::ready) << "ends at once";
        EXPECT_FALSE(answered.get());
    }
}

}  // namespace
}  // namespace ProcMgr::Agent
