#include "platform/host/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace PlatformHost {

int32_t BoundSocket::Bind(int type, const std::string& path, mode_t mode, gid_t gid) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return -ENAMETOOLONG;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsValid()) {
        return -errno;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return -errno;
    }
    if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return -errno;
    }
    socket_ = std::move(fd);
    path_ = path;
    const int32_t result = SetUpFile(mode, gid);
    if (result < 0) {
        Close();
    }
    return result;
}

int32_t BoundSocket::SetUpFile(mode_t mode, gid_t gid) {
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0) {
        return -errno;
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    if (lchown(path_.c_str(), static_cast<uid_t>(-1), gid) != 0) {
        return -errno;
    }
    // After the change of owner, and explicitly: the umask took bits away at the bind.
    return chmod(path_.c_str(), mode) == 0 ? 0 : -errno;
}

void BoundSocket::Close() {
    if (!socket_.IsValid()) {
        return;
    }
    struct stat status {};
    if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str());
    }
    socket_.Reset();
}

}  // namespace PlatformHost
