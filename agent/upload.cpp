#include "agent/upload.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <span>
#include <system_error>
#include <thread>
#include <vector>

#include "agent/packet_socket.h"
#include "wire/packet_io.h"
#include "wire/socket_paths.h"

namespace ProcMgr::Agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Deadline = steady_clock::time_point;

// Each connection carries one call.
constexpr Wire::PacketHeader CALL{Wire::PacketKind::CALL, 1};

milliseconds LeftUntil(Deadline deadline) {
    return std::max(std::chrono::ceil<milliseconds>(deadline - steady_clock::now()),
                    milliseconds(0));
}

// False when the deadline has passed.
bool WaitFor(int fd, short events, Deadline deadline) {
    while (steady_clock::now() < deadline) {
        pollfd waited{fd, events, 0};
        const auto left = std::min<milliseconds::rep>(LeftUntil(deadline).count(), INT_MAX);
        if (poll(&waited, 1, static_cast<int>(left)) > 0) {
            return true;
        }
    }
    return false;
}

// Connects, and tries again while nobody listens at the path; not valid after the deadline.
UniqueFd ConnectUntil(const std::string& path, Deadline deadline) {
    UniqueFd fd = ConnectSocket(path);
    while (!fd.IsValid() && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::min(RETRY_PAUSE, LeftUntil(deadline)));
        fd = ConnectSocket(path);
    }
    return fd;
}

bool SendCall(int fd, std::span<const uint8_t> body, Deadline deadline) {
    Wire::SendResult result = Wire::SendPacket(fd, CALL, body);
    while (result == Wire::SendResult::FULL && WaitFor(fd, POLLOUT, deadline)) {
        result = Wire::SendPacket(fd, CALL, body);
    }
    return result == Wire::SendResult::SENT;
}

std::optional<Message::UploadResponse> ReceiveResponse(int fd, Deadline deadline) {
    std::vector<uint8_t> buffer(Wire::PACKET_MAX);
    while (WaitFor(fd, POLLIN, deadline)) {
        Wire::Packet packet;
        const Wire::ReceiveResult result = Wire::ReceivePacket(fd, buffer, packet);
        if (result == Wire::ReceiveResult::ENDED) {
            return std::nullopt;
        }
        if (result == Wire::ReceiveResult::PACKET &&
            packet.header.kind == Wire::PacketKind::RESPONSE &&
            packet.header.sequence == CALL.sequence) {
            return Message::DecodeUploadResponse(packet.body);
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<Message::UploadResponse> RegisterUpload(const std::string& name,
                                                      const std::vector<std::string>& groups,
                                                      milliseconds timeout) {
    const Deadline deadline = DeadlineIn(timeout);
    std::error_code error;
    const std::string path = std::filesystem::read_symlink("/proc/self/exe", error).string();
    const auto record = Message::EncodeUploadRequest({getpid(), name, path, groups});
    if (error || !record) {
        return std::nullopt;
    }
    const UniqueFd fd = ConnectUntil(Wire::ServerPath(Message::UPLOAD_SERVER), deadline);
    if (!fd.IsValid() || !SendCall(fd.Get(), *record, deadline)) {
        return std::nullopt;
    }
    return ReceiveResponse(fd.Get(), deadline);
}

}  // namespace ProcMgr::Agent
