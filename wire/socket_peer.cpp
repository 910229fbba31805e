#include "wire/socket_peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace Wire {
namespace {

// The kernel has no process with more groups.
constexpr size_t GROUPS_MAX = 65536;
// Enough for most processes.
constexpr size_t GROUPS_USUAL = 64;

bool ReadGroups(int socket, std::vector<gid_t>& groups) {
    groups.resize(GROUPS_USUAL);
    for (;;) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const int result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
        const size_t count = size / sizeof(gid_t);
        if (result == 0) {
            groups.resize(std::min(count, groups.size()));
            return true;
        }
        // With ERANGE the size is the one that is needed.
        if (errno != ERANGE || count <= groups.size() || count > GROUPS_MAX) {
            return false;
        }
        groups.resize(count);
    }
}

}  // namespace

std::optional<Peer> ReadPeer(int socket) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return std::nullopt;
    }
    Peer peer{credentials.uid, credentials.gid, {}};
    if (!ReadGroups(socket, peer.groups)) {
        peer.groups.clear();
    }
    return peer;
}

bool IsPermitted(const Peer& peer, uid_t self, std::optional<gid_t> group) {
    if (peer.uid == 0 || peer.uid == self) {
        return true;
    }
    return group && (peer.gid == *group || std::find(peer.groups.begin(), peer.groups.end(),
                                                     *group) != peer.groups.end());
}

}  // namespace Wire
