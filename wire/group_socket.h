// A Unix socket at which root and the members of one group connect, and its file. Used by the
// status endpoint and by pm-console.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "wire/unique_fd.h"

namespace Wire {

// The number of a group; nothing for an empty or unknown name. Waits for the group database.
std::optional<gid_t> FindGroup(const std::string& name);

// The directory of the daemon's sockets.
inline constexpr const char* RUN_DIRECTORY = "/run/process-manager";

// The clients of one server at a time: all of them, those that are not root, and those of one such
// user. So neither a user nor the group can keep root out, nor one user the group.
inline constexpr size_t CLIENTS_MAX = 16;
inline constexpr int CLIENTS_OF_GROUP_MAX = 12;
inline constexpr int CLIENTS_OF_USER_MAX = 8;

// Root, and the user of this process.
bool IsTrusted(uid_t user);
// Whether there is a place for a client of `user` beside the clients of the users `present`.
bool HasPlace(uid_t user, const std::vector<uid_t>& present);

// For one thread.
class GroupSocket {
public:
    GroupSocket() = default;
    ~GroupSocket() { Close(); }
    GroupSocket(const GroupSocket&) = delete;
    GroupSocket& operator=(const GroupSocket&) = delete;

    // Makes the socket, and the directory of `path`, which is absolute, if it is missing. A new
    // directory, and RUN_DIRECTORY in any case, gets this process's user and mode 0755. Another one
    // stays as it is; only root or this process's user may own it, and nobody else may write it
    // unless it is sticky. The file has mode 0660 with a group and 0600 without
    // one; it takes the place of the socket of an earlier process, and of no other file. Nobody can
    // connect before all is set, and the socket does not block. Returns null, or the name of the
    // step that failed, with errno; then there is no socket.
    const char* Open(const std::string& path, std::optional<gid_t> group);
    // Removes the file, unless another one has taken its place.
    void Close();

    int GetFd() const { return fd_.Get(); }
    // The next client, whose socket does not block; not valid, with errno, without one.
    UniqueFd Accept() const;
    // The user of the connection's peer; nothing unless that is root, the user of this process or a
    // member of the group.
    std::optional<uid_t> PermittedUser(int client) const;
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
