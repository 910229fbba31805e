#include "console/console_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

namespace ProcMgr::Console {
namespace {

// Connections that wait for accept(); more clients are told to come again by connect().
constexpr int BACKLOG = 32;
constexpr mode_t ROOT_ONLY = 0600;
constexpr mode_t ROOT_AND_GROUP = 0660;

void Require(bool isDone, const std::string& what) {
    if (!isDone) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

void MakeDirectory(const std::string& path) {
    const std::string directory = std::filesystem::path(path).parent_path().string();
    if (mkdir(directory.c_str(), 0755) == 0) {
        // Whatever the umask is.
        Require(chmod(directory.c_str(), 0755) == 0, "chmod " + directory);
        return;
    }
    Require(errno == EEXIST, "mkdir " + directory);
}

// The supplementary groups that the peer had when it connected.
std::vector<gid_t> GroupsOf(int client) {
    std::vector<gid_t> groups(64);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(client, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        if (errno != ERANGE) {
            return {};
        }
        groups.resize(size / sizeof(gid_t));
        if (getsockopt(client, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
            return {};
        }
    }
    groups.resize(size / sizeof(gid_t));
    return groups;
}

}  // namespace

ConsoleSocket::ConsoleSocket(std::string path, std::optional<gid_t> group)
    : path_(std::move(path)),
      group_(group),
      fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    Require(fd_.IsValid(), "socket");
    MakeDirectory(path_);
    // A client that comes meanwhile finds the older socket, or this one when it listens.
    const std::string made = path_ + ".new";
    Bind(made);
    if (group_) {
        Require(chown(made.c_str(), 0, *group_) == 0, "chown " + made);
    }
    Require(chmod(made.c_str(), group_ ? ROOT_AND_GROUP : ROOT_ONLY) == 0, "chmod " + made);
    Require(listen(fd_.Get(), BACKLOG) == 0, "listen " + made);
    Require(rename(made.c_str(), path_.c_str()) == 0, "rename " + made);
    Remember();
}

void ConsoleSocket::Bind(const std::string& path) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error(path + ": too long for a socket");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    unlink(path.c_str());
    const mode_t before = umask(0177);
    const int result = bind(fd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    const int error = errno;
    umask(before);
    errno = error;
    Require(result == 0, "bind " + path);
}

void ConsoleSocket::Remember() {
    struct stat status {};
    Require(lstat(path_.c_str(), &status) == 0, "stat " + path_);
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

ConsoleSocket::~ConsoleSocket() {
    if (!IsReplaced()) {
        unlink(path_.c_str());
    }
}

Wire::UniqueFd ConsoleSocket::Accept() const {
    return Wire::UniqueFd(accept4(fd_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

bool ConsoleSocket::IsPermitted(int client) const {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return false;
    }
    if (peer.uid == 0 || !group_) {
        return peer.uid == 0;
    }
    const std::vector<gid_t> groups = GroupsOf(client);
    return peer.gid == *group_ || std::find(groups.begin(), groups.end(), *group_) != groups.end();
}

bool ConsoleSocket::IsReplaced() const {
    struct stat status {};
    return lstat(path_.c_str(), &status) != 0 || status.st_dev != device_ ||
           status.st_ino != inode_;
}

}  // namespace ProcMgr::Console
