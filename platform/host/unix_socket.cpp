#include "platform/host/unix_socket.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/host/diagnostics.h"
#include "wire/socket_paths.h"

namespace PlatformHost {

namespace {

constexpr mode_t DIRECTORY_MODE = 0755;

int32_t MakeDirectory(const char* path) {
    struct stat present {};
    if (stat(path, &present) == 0 && present.st_mode == (S_IFDIR | DIRECTORY_MODE)) {
        return 0;
    }
    if (mkdir(path, DIRECTORY_MODE) != 0) {
        return errno == EEXIST ? 0 : -errno;
    }
    // The umask of the process must not keep services out.
    return chmod(path, DIRECTORY_MODE) == 0 ? 0 : -errno;
}

AcceptResult ClassifyAcceptError(int error) {
    switch (error) {
        case EAGAIN:
            return AcceptResult::NONE;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            return AcceptResult::EXHAUSTED;
        default:
            return AcceptResult::REFUSED;
    }
}

}  // namespace

int32_t MakeMessagingDirectories() {
    for (const char* path :
         {Wire::MESSAGING_DIRECTORY, Wire::PIPE_DIRECTORY, Wire::SERVER_DIRECTORY}) {
        const int32_t result = MakeDirectory(path);
        if (result < 0) {
            WriteDiagnostic(LOG_ERR, "messaging: directory " + std::string(path) +
                                         " cannot be made, errno=" + std::to_string(-result));
            return result;
        }
    }
    return 0;
}

int32_t BoundSocket::Bind(const std::string& path, mode_t mode, gid_t gid) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return -ENAMETOOLONG;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsValid()) {
        return -errno;
    }
    const auto bindTo = [&] {
        return bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    };
    // A file of an earlier process may be left.
    const bool isBound = bindTo() || (errno == EADDRINUSE &&
                                      (unlink(path.c_str()) == 0 || errno == ENOENT) && bindTo());
    if (!isBound) {
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
    if (status.st_gid != gid && lchown(path_.c_str(), static_cast<uid_t>(-1), gid) != 0) {
        return -errno;
    }
    // After the change of the group, which clears bits of the mode; bind() applied the umask.
    return chmod(path_.c_str(), mode) == 0 ? 0 : -errno;
}

int32_t BoundSocket::Listen(int backlog) const {
    return listen(socket_.Get(), backlog) == 0 ? 0 : -errno;
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

AcceptResult AcceptPeer(int listener, AcceptedPeer& peer) {
    UniqueFd socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.IsValid()) {
        return ClassifyAcceptError(errno);
    }
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return AcceptResult::REFUSED;
    }
    peer = AcceptedPeer{std::move(socket), credentials};
    return AcceptResult::ACCEPTED;
}

}  // namespace PlatformHost
