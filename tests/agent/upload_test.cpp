// Upload registration against a server made of plain sockets, under a /run of its own.
#include "agent/upload.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <future>

#include "tests/support/private_run.h"
#include "wire/packet_io.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Agent {
namespace {

using namespace std::chrono_literals;
using Message::UploadResult;
using Wire::PacketKind;
using Wire::UniqueFd;
using Bytes = std::vector<uint8_t>;
using Answered = std::optional<Message::UploadResponse>;

constexpr auto PATIENCE = 10s;
constexpr auto IMPATIENCE = 100ms;

class UploadTest : public PrivateRunTest {
protected:
    void Listen() {
        std::filesystem::create_directories("/run/muxa/server");
        listener_ = UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/run/muxa/server/pmupload");
        ASSERT_EQ(bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        ASSERT_EQ(listen(listener_.Get(), 4), 0);
    }
    // Takes the next call; its bytes are empty when none comes.
    Bytes Accept() {
        pollfd waited{listener_.Get(), POLLIN, 0};
        Bytes bytes(Wire::PACKET_MAX);
        ssize_t length = 0;
        if (poll(&waited, 1, 10000) == 1) {
            peer_ = UniqueFd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            length = recv(peer_.Get(), bytes.data(), bytes.size(), 0);
        }
        bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
        return bytes;
    }
    void Send(PacketKind kind, uint64_t sequence, const Bytes& body) {
        EXPECT_EQ(Wire::SendPacket(peer_.Get(), {kind, sequence}, body), Wire::SendResult::SENT);
    }

    UniqueFd listener_;
    UniqueFd peer_;
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
    const Bytes bytes = Accept();
    const auto packet = Wire::DecodePacket(bytes);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->header.kind, Wire::PacketKind::CALL);
    Message::UploadRequest request;
    ASSERT_EQ(Message::DecodeUploadRequest(packet->body, request), UploadResult::REGISTERED);
    EXPECT_EQ(request.pid, getpid());
    EXPECT_EQ(request.name, "me");
    EXPECT_EQ(request.path, std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_EQ(request.groups, (std::vector<std::string>{"g1", "g2"}));

    const auto no = Message::EncodeUploadResponse({UploadResult::TOO_MANY, {}}).value();
    const auto yes = Message::EncodeUploadResponse({UploadResult::REGISTERED, {"g1"}}).value();
    Send(PacketKind::RESPONSE, packet->header.sequence + 1, no);
    Send(PacketKind::REQUEST, packet->header.sequence, no);
    EXPECT_EQ(answered.wait_for(IMPATIENCE), std::future_status::timeout);
    Send(PacketKind::RESPONSE, packet->header.sequence, yes);
    const Answered answer = answered.get();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result, UploadResult::REGISTERED);
    EXPECT_EQ(answer->groups, std::vector<std::string>{"g1"});
    char byte = 0;
    EXPECT_EQ(recv(peer_.Get(), &byte, 1, 0), 0) << "the connection is closed behind it";
}

TEST_F(UploadTest, NothingComesOfASilentOrBrokenServer) {
    Listen();
    EXPECT_FALSE(RegisterUpload(std::string(128, 'n'), {}, PATIENCE)) << "does not fit";
    EXPECT_FALSE(RegisterUpload("me", {}, IMPATIENCE)) << "does not answer";
    Accept();
    const std::function<void(uint64_t)> answers[] = {
        [this](uint64_t) { peer_.Reset(); },
        [this](uint64_t) { Send(PacketKind{0}, 0, {}); },
        [this](uint64_t sequence) { Send(PacketKind::RESPONSE, sequence, Bytes(4)); },
        [this](uint64_t sequence) {
            Send(PacketKind::RESPONSE, sequence, Bytes(Wire::PACKET_BODY_MAX + 1));
        },
    };
    for (const auto& answer : answers) {
        std::future<Answered> answered = Register(PATIENCE * 2);
        const Bytes bytes = Accept();
        const auto packet = Wire::DecodePacket(bytes);
        ASSERT_TRUE(packet);
        answer(packet->header.sequence);
        EXPECT_EQ(answered.wait_for(PATIENCE), std::future_status::ready) << "is told at once";
        EXPECT_FALSE(answered.get());
    }
}

}  // namespace
}  // namespace ProcMgr::Agent
