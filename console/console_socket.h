// The socket at which the clients of the console connect: its file, and who may use it. The mode of
// the file is set before anybody can connect. For one thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "wire/unique_fd.h"

namespace ProcMgr::Console {

class ConsoleSocket {
public:
    // Makes the socket at `path`, in place of an older one, and its directory if that is missing.
    // Open to root and, when there is a `group`, to its members. Throws std::runtime_error.
    ConsoleSocket(std::string path, std::optional<gid_t> group);
    // Removes the file, unless it is the socket of a later console.
    ~ConsoleSocket();
    ConsoleSocket(const ConsoleSocket&) = delete;
    ConsoleSocket& operator=(const ConsoleSocket&) = delete;

    int GetFd() const { return fd_.Get(); }
    // The next client, whose socket does not block; not valid without one.
    Wire::UniqueFd Accept() const;
    // Whether the peer of the connection is root or a member of the group.
    bool IsPermitted(int client) const;
    // Whether the path leads to another socket than this one.
    bool IsReplaced() const;

private:
    void Bind(const std::string& path) const;
    void Remember();

    const std::string path_;
    const std::optional<gid_t> group_;
    Wire::UniqueFd fd_;
    // Of the socket's file.
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace ProcMgr::Console
