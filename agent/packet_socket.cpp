#include "agent/packet_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>

namespace ProcMgr::Agent {

std::chrono::steady_clock::time_point DeadlineIn(std::chrono::milliseconds timeout) {
    return std::chrono::steady_clock::now() +
           std::clamp(timeout, std::chrono::milliseconds(0), LONGEST_WAIT);
}

bool IsSocketPath(const std::string& path) {
    // One byte is for the terminator.
    return !path.empty() && path.size() < sizeof(sockaddr_un::sun_path);
}

UniqueFd ConnectSocket(const std::string& path) {
    if (!IsSocketPath(path)) {
        return {};
    }
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (!fd.IsValid() ||
        connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fd.Reset();
    }
    return fd;
}

}  // namespace ProcMgr::Agent
