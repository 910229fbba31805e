// A Unix socket at which root and the members of one group connect, and its file. Used by the
// status endpoint and by pm-console.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "wire/unique_fd.h"

namespace Wire {

// The number of a group; nothing for an empty or unknown name. Waits for the group database.
std::optional<gid_t> FindGroup(const std::string& name);

// For one thread.
class GroupSocket {
public:
    GroupSocket() = default;
    ~GroupSocket() { Close(); }
    GroupSocket(const GroupSocket&) = delete;
    GroupSocket& operator=(const GroupSocket&) = delete;

    // Makes the socket, and the directory of `path` if it is missing. The directory is given to
    // this process's user, with mode 0755. The file has mode 0660 with a group and 0600 without
    // one; it takes the place of the socket of an earlier process, and of no other file. Nobody can
    // connect before all is set, and the socket does not block. Returns null, or the name of the
    // step that failed, with errno; then there is no socket.
    const char* Open(const std::string& path, std::optional<gid_t> group);
    // Removes the file, unless another one has taken its place.
    void Close();

    int GetFd() const { return fd_.Get(); }
    // The next client, whose socket does not block; not valid, with errno, without one.
    UniqueFd Accept() const;
    // Whether the peer of the connection is root, the user of this process or a member of the
    // group.
    bool IsPermitted(int client) const;
    // Whether the path leads to no file, or to another one than that of this socket.
    bool IsReplaced() const;

private:
    const char* Listen(const std::string& made);
    const char* SetUpFile(const std::string& made);

    std::string path_;
    std::optional<gid_t> group_;
    UniqueFd fd_;
    // Of the socket's file.
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace Wire
