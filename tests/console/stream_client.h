// A client of the console's socket that writes and reads plain bytes. Used by the tests of the
// console.
#pragma once

#include <sys/socket.h>

#include <string>
#include <utility>

#include "tests/support/raw_peer.h"

namespace ProcMgr::Tests {

// One connection. One thread.
class StreamClient {
public:
    // Tries to connect for PATIENCE while there is no socket.
    explicit StreamClient(const std::string& path)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = SocketAddress(path);
        isConnected_ = WaitUntil([&] {
            return connect(fd_.Get(), reinterpret_cast<const sockaddr*>(&address),
                           sizeof(address)) == 0;
        });
    }

    bool IsConnected() const { return isConnected_; }
    // False when the console has closed the connection before all was sent.
    bool Send(const std::string& bytes) const {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count =
                send(fd_.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<size_t>(count);
        }
        return true;
    }
    // The next line with its newline; what is there of it at the end of the connection, or when
    // nothing comes within PATIENCE.
    std::string Line() const {
        std::string line;
        for (char c = 0; c != '\n' && IsReadable(fd_.Get()) && recv(fd_.Get(), &c, 1, 0) == 1;) {
            line += c;
        }
        return line;
    }
    // All lines until the end of the connection.
    std::string Rest() const {
        std::string all;
        for (std::string line = Line(); !line.empty(); line = Line()) {
            all += line;
        }
        return all;
    }

private:
    Wire::UniqueFd fd_;
    bool isConnected_ = false;
};

}  // namespace ProcMgr::Tests
