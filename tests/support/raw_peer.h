// Ends of SOCK_SEQPACKET connections for tests that play a peer of the messaging, heartbeat and
// power sockets, or the daemon's end of them. Nothing is encoded here: a packet is a string of
// bytes.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tests/support/wait.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Tests {

// The address of a socket file. `path` has at most 107 bytes.
inline sockaddr_un SocketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

// Waits until `fd` can be read without blocking, which includes the end of the connection.
inline bool IsReadable(int fd, std::chrono::milliseconds patience = PATIENCE) {
    pollfd waited{fd, POLLIN, 0};
    return poll(&waited, 1, static_cast<int>(patience.count())) == 1;
}

// One connection, owned by the object. One thread.
class RawPeer {
public:
    RawPeer() = default;
    explicit RawPeer(Wire::UniqueFd fd) : fd_(std::move(fd)) {}
    // Connects to the socket file; `flags` are further flags of socket(2). While there is no
    // listener it tries again for `patience`. Error() has the result.
    explicit RawPeer(const std::string& path, std::chrono::milliseconds patience = {},
                     int flags = 0)
        : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0)) {
        const sockaddr_un address = SocketAddress(path);
        WaitUntil(
            [&] {
                const auto* any = reinterpret_cast<const sockaddr*>(&address);
                error_ = connect(fd_.Get(), any, sizeof(address)) == 0 ? 0 : errno;
                return error_ != ENOENT && error_ != ECONNREFUSED;
            },
            patience);
    }

    int Fd() const { return fd_.Get(); }
    bool IsValid() const { return fd_.IsValid() && error_ == 0; }
    int Error() const { return error_; }  // errno of connect(2); 0 for success
    void Close() { fd_.Reset(); }

    // Sends one packet. False, with errno set, when it was not taken whole.
    bool Send(std::string_view packet, int flags = 0) const {
        return Send(packet.data(), packet.size(), flags);
    }
    bool Send(const void* data, size_t size, int flags = 0) const {
        return send(fd_.Get(), data, size, flags | MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    // The next packet; "" for the end of the connection, nothing after `patience` without either.
    std::optional<std::string> Receive(std::chrono::milliseconds patience = PATIENCE) const {
        if (!IsReadable(fd_.Get(), patience)) {
            return std::nullopt;
        }
        std::string packet(70000, '\0');
        const ssize_t length = recv(fd_.Get(), packet.data(), packet.size(), 0);
        packet.resize(length > 0 ? static_cast<size_t>(length) : 0);
        return packet;
    }
    // Waits until the other end has closed the connection. A packet in its place is taken and
    // yields false.
    bool HasEnded(std::chrono::milliseconds patience = PATIENCE) const {
        return Receive(patience) == "";
    }

private:
    Wire::UniqueFd fd_;
    int error_ = 0;
};

// The listening end. The socket file replaces an older one and may be opened by everybody.
class RawListener {
public:
    // Throws std::runtime_error when the socket file cannot be made.
    explicit RawListener(std::string path)
        : path_(std::move(path)), fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
        unlink(path_.c_str());
        const sockaddr_un address = SocketAddress(path_);
        if (bind(fd_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(fd_.Get(), SOMAXCONN) != 0 || chmod(path_.c_str(), 0666) != 0) {
            throw std::runtime_error(path_ + ": " + strerror(errno));
        }
    }

    const std::string& Path() const { return path_; }
    // The next connection; one that is not valid when none comes within `patience`.
    RawPeer Accept(std::chrono::milliseconds patience = PATIENCE) const {
        const bool isThere = IsReadable(fd_.Get(), patience);
        return RawPeer(
            Wire::UniqueFd(isThere ? accept4(fd_.Get(), nullptr, nullptr, SOCK_CLOEXEC) : -1));
    }

private:
    const std::string path_;
    Wire::UniqueFd fd_;
};

}  // namespace ProcMgr::Tests
