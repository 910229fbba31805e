#include "wire/group_socket.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "wire/socket_peer.h"

namespace Wire {
namespace {

constexpr mode_t DIRECTORY_MODE = 0755;
constexpr mode_t GROUP_MODE = 0660;
constexpr mode_t ROOT_MODE = 0600;
// Connections that wait for Accept(); connect() of further ones fails or waits.
constexpr int BACKLOG = 32;
// Bytes of an entry of the group database.
constexpr size_t GROUP_SIZE_FIRST = 4096;
constexpr size_t GROUP_SIZE_MAX = size_t{1} << 20;

// Whoever may write the directory can replace the socket. Others may write a sticky one, such as
// /tmp, because they cannot remove this process's files there.
bool IsSafe(const struct stat& directory) {
    const bool isOwned = directory.st_uid == 0 || directory.st_uid == geteuid();
    const bool isWritable = (directory.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return isOwned && (!isWritable || (directory.st_mode & S_ISVTX) != 0);
}

// Gives the directory to this process's user.
const char* TakeOver(int directory, const struct stat& status) {
    if (status.st_uid != geteuid() && fchown(directory, geteuid(), getegid()) != 0) {
        return "fchown";
    }
    const bool hasMode = (status.st_mode & ALLPERMS) == DIRECTORY_MODE;
    return hasMode || fchmod(directory, DIRECTORY_MODE) == 0 ? nullptr : "fchmod";
}

// Somebody else's directory is used as it is, or not at all.
const char* MakeDirectory(const std::string& path) {
    const bool isNew = mkdir(path.c_str(), DIRECTORY_MODE) == 0;
    if (!isNew && errno != EEXIST) {
        return "mkdir";
    }
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!fd.IsValid() || fstat(fd.Get(), &status) != 0) {
        return "open";
    }
    if (path == RUN_DIRECTORY || (isNew && status.st_uid == geteuid())) {
        return TakeOver(fd.Get(), status);
    }
    errno = EPERM;
    return IsSafe(status) ? nullptr : "the check of the directory";
}

// False, with errno, when there is a file that is no socket.
bool MayReplace(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT;
    }
    errno = EEXIST;
    return S_ISSOCK(status.st_mode);
}

bool Bind(int fd, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::copy(path.begin(), path.end(), &address.sun_path[0]);
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

}  // namespace

std::optional<gid_t> FindGroup(const std::string& name) {
    if (name.empty()) {
        return std::nullopt;
    }
    std::vector<char> bytes(GROUP_SIZE_FIRST);
    group entry{};
    group* found = nullptr;
    while (getgrnam_r(name.c_str(), &entry, bytes.data(), bytes.size(), &found) == ERANGE &&
           bytes.size() < GROUP_SIZE_MAX) {
        bytes.resize(2 * bytes.size());
    }
    return found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
}

bool IsTrusted(uid_t user) {
    return user == 0 || user == geteuid();
}

bool HasPlace(uid_t user, const std::vector<uid_t>& present) {
    if (IsTrusted(user)) {
        return present.size() < CLIENTS_MAX;
    }
    const auto others = std::count_if(present.begin(), present.end(),
                                      [](uid_t other) { return !IsTrusted(other); });
    const auto own = std::count(present.begin(), present.end(), user);
    return present.size() < CLIENTS_MAX && others < CLIENTS_OF_GROUP_MAX &&
           own < CLIENTS_OF_USER_MAX;
}

const char* GroupSocket::Open(const std::string& path, std::optional<gid_t> group) {
    Close();
    path_ = path;
    group_ = group;
    if (!path.starts_with('/')) {
        errno = EINVAL;
        return "the check of the path";
    }
    if (const char* failed = MakeDirectory(path.substr(0, std::max<size_t>(path.rfind('/'), 1)))) {
        return failed;
    }
    fd_ = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // A client that comes meanwhile finds the earlier socket, or this one when it listens.
    const std::string made = path + ".new";
    const char* failed = fd_.IsValid() ? Listen(made) : "socket";
    if (failed != nullptr) {
        const int error = errno;
        unlink(made.c_str());
        fd_.Reset();
        errno = error;
    }
    return failed;
}

const char* GroupSocket::Listen(const std::string& made) {
    unlink(made.c_str());
    if (!Bind(fd_.Get(), made)) {
        return "bind";
    }
    if (const char* failed = SetUpFile(made)) {
        return failed;
    }
    if (listen(fd_.Get(), BACKLOG) != 0) {
        return "listen";
    }
    return MayReplace(path_) && rename(made.c_str(), path_.c_str()) == 0 ? nullptr : "rename";
}

const char* GroupSocket::SetUpFile(const std::string& made) {
    struct stat status {};
    if (lstat(made.c_str(), &status) != 0) {
        return "lstat";
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    if (group_ && lchown(made.c_str(), static_cast<uid_t>(-1), *group_) != 0) {
        return "lchown";
    }
    // After the change of the group; bind() has applied the umask.
    return chmod(made.c_str(), group_ ? GROUP_MODE : ROOT_MODE) == 0 ? nullptr : "chmod";
}

void GroupSocket::Close() {
    if (fd_.IsValid() && !IsReplaced()) {
        unlink(path_.c_str());
    }
    fd_.Reset();
}

UniqueFd GroupSocket::Accept() const {
    return UniqueFd(accept4(fd_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

std::optional<uid_t> GroupSocket::PermittedUser(int client) const {
    const std::optional<Peer> peer = ReadPeer(client);
    const bool isPermitted = peer && IsPermitted(*peer, geteuid(), group_);
    return isPermitted ? std::optional(peer->uid) : std::nullopt;
}

bool GroupSocket::IsReplaced() const {
    struct stat status {};
    return lstat(path_.c_str(), &status) != 0 || status.st_dev != device_ ||
           status.st_ino != inode_;
}

}  // namespace Wire
