// A client of the status endpoint.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "tests/support/raw_peer.h"
#include "tests/support/wait.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Tests {

// One connection. One thread.
class StatusClient {
public:
    // While there is no listener it tries again for `patience`. Error() has the result.
    explicit StatusClient(const std::string& path, std::chrono::milliseconds patience = PATIENCE)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = SocketAddress(path);
        WaitUntil(
            [&] {
                const auto* any = reinterpret_cast<const sockaddr*>(&address);
                error_ = connect(fd_.Get(), any, sizeof(address)) == 0 ? 0 : errno;
                return error_ != ENOENT && error_ != ECONNREFUSED;
            },
            patience);
    }

    int Error() const { return error_; }  // errno of connect(2); 0 for success
    bool Send(std::string_view text) const {
        return send(fd_.Get(), text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }
    // Everything up to the end of the connection; nothing when it does not end.
    std::optional<std::string> ReceiveAll() const {
        std::string all;
        for (char part[65536]; IsReadable(fd_.Get());) {
            const ssize_t size = recv(fd_.Get(), part, sizeof part, 0);
            if (size <= 0) {
                return all;
            }
            all.append(part, static_cast<size_t>(size));
        }
        return std::nullopt;
    }

private:
    Wire::UniqueFd fd_;
    int error_ = 0;
};

// The answer to a request, which needs no line feed; empty when the daemon gives none.
inline std::string AskStatus(const std::string& path, const std::string& request) {
    const StatusClient client(path);
    return client.Error() == 0 && client.Send(request + "\n") ? client.ReceiveAll().value_or("")
                                                              : "";
}

}  // namespace ProcMgr::Tests
