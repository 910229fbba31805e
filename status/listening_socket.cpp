#include "status/listening_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "main/common/log.h"

namespace ProcMgr::Status {
namespace {

constexpr mode_t DIRECTORY_MODE = 0755;
constexpr mode_t GROUP_MODE = 0660;
constexpr mode_t ROOT_MODE = 0600;
constexpr int BACKLOG = 16;

bool Fail(const std::string& path, const char* step) {
    ProcMgrLog(LOG_ERR, "PROCMGR : the status socket %s cannot be made, %s failed, errno=%d",
               path.c_str(), step, errno);
    return false;
}

// The directory must be the daemon's own: whoever may write it can replace the socket.
bool MakeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
        return Fail(path, "mkdir");
    }
    const Wire::UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!fd.IsValid() || fstat(fd.Get(), &status) != 0) {
        return Fail(path, "open");
    }
    if (status.st_uid != geteuid() && fchown(fd.Get(), geteuid(), getegid()) != 0) {
        return Fail(path, "fchown");
    }
    const bool hasMode = (status.st_mode & ALLPERMS) == DIRECTORY_MODE;
    return hasMode || fchmod(fd.Get(), DIRECTORY_MODE) == 0 || Fail(path, "fchmod");
}

bool IsSocket(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

}  // namespace

bool ListeningSocket::Open(const std::string& path, std::optional<gid_t> group) {
    if (!MakeDirectory(path.substr(0, path.rfind('/')))) {
        return false;
    }
    path_ = path;
    fd_ = Wire::UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd_.IsValid()) {
        return Fail(path, "socket");
    }
    if (!Bind()) {
        Fail(path, "bind");
        fd_.Reset();
        return false;
    }
    // Nobody can connect before listen().
    if (!SetUpFile(group) || (listen(fd_.Get(), BACKLOG) != 0 && !Fail(path, "listen"))) {
        Close();
        return false;
    }
    return true;
}

bool ListeningSocket::Bind() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::copy(path_.begin(), path_.end(), &address.sun_path[0]);
    const auto bindTo = [&] {
        return bind(fd_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    };
    if (bindTo()) {
        return true;
    }
    // There is only one daemon: the socket is one of a daemon that was killed.
    return errno == EADDRINUSE && IsSocket(path_) && unlink(path_.c_str()) == 0 && bindTo();
}

bool ListeningSocket::SetUpFile(std::optional<gid_t> group) {
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0) {
        return Fail(path_, "lstat");
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    if (group && lchown(path_.c_str(), static_cast<uid_t>(-1), *group) != 0) {
        return Fail(path_, "lchown");
    }
    // After the change of the group; bind() has applied the umask.
    return chmod(path_.c_str(), group ? GROUP_MODE : ROOT_MODE) == 0 || Fail(path_, "chmod");
}

void ListeningSocket::Close() {
    if (!fd_.IsValid()) {
        return;
    }
    struct stat status {};
    if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str());
    }
    fd_.Reset();
}

}  // namespace ProcMgr::Status
