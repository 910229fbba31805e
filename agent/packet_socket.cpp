#include "agent/packet_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ProcMgr::Agent {

std::chrono::steady_clock::time_point DeadlineIn(std::chrono::milliseconds timeout) {
    return std::chrono::steady_clock::now() +
           std::clamp(timeout, std::chrono::milliseconds(0), LONGEST_WAIT);
}

UniqueFd ConnectSocket(const std::string& path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof(address.sun_path) - 1));
    if (!fd.IsValid() ||
        connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fd.Reset();
    }
    return fd;
}

std::optional<size_t> ReceivePacket(int fd, std::span<uint8_t> buffer) {
    ssize_t length = 0;
    do {
        // A peer that went with our packets unread is told once as ECONNRESET, ahead of what it
        // had sent before. MSG_TRUNC yields the full length of a packet that does not fit.
        length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    } while (length < 0 && (errno == EINTR || errno == ECONNRESET));
    if (length < 0) {
        return errno == EAGAIN ? std::nullopt : std::optional<size_t>(0);
    }
    return static_cast<size_t>(length);
}

}  // namespace ProcMgr::Agent
