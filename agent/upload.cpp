#include "agent/upload.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <span>
#include <system_error>
#include <thread>

#include "agent/codec.h"
#include "agent/packet_socket.h"

namespace ProcMgr::Agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Deadline = steady_clock::time_point;

// One call a connection.
constexpr uint64_t SEQUENCE = 1;

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

// Not valid when nobody listens there until the deadline.
UniqueFd ConnectUntil(const std::string& path, Deadline deadline) {
    UniqueFd fd = ConnectSocket(path);
    while (!fd.IsValid() && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::min(RETRY_PAUSE, LeftUntil(deadline)));
        fd = ConnectSocket(path);
    }
    return fd;
}

bool SendPacket(int fd, std::span<const uint8_t> packet, Deadline deadline) {
    while (send(fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        if ((errno != EAGAIN && errno != EINTR) || !WaitFor(fd, POLLOUT, deadline)) {
            return false;
        }
    }
    return true;
}

std::optional<Message::UploadResponse> ReceiveResponse(int fd, Deadline deadline) {
    std::vector<uint8_t> buffer(PACKET_MAX);
    while (WaitFor(fd, POLLIN, deadline)) {
        const std::optional<size_t> length = ReceivePacket(fd, buffer);
        if (!length) {
            continue;
        }
        const auto packet = *length <= buffer.size()
                                ? DecodePacket(std::span(buffer).first(*length))
                                : std::nullopt;
        if (!packet) {
            return std::nullopt;
        }
        if (packet->kind == PacketKind::RESPONSE && packet->sequence == SEQUENCE) {
            return Message::DecodeUploadResponse(packet->body);
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
    const UniqueFd fd = ConnectUntil(ServerPath(Message::UPLOAD_SERVER), deadline);
    const auto packet = EncodePacket(PacketKind::CALL, SEQUENCE, *record);
    if (!fd.IsValid() || !SendPacket(fd.Get(), packet, deadline)) {
        return std::nullopt;
    }
    return ReceiveResponse(fd.Get(), deadline);
}

}  // namespace ProcMgr::Agent
