// Who is at the other end of a Unix socket. Functions for any thread; none waits.
#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

namespace Wire {

// The process at the other end, as it was when it connected.
struct Peer {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // the supplementary groups
};

// Nothing when the kernel does not tell.
std::optional<Peer> ReadPeer(int socket);

// True for root, for the user `self` that the server runs as, and for the members of `group`.
bool IsPermitted(const Peer& peer, uid_t self, std::optional<gid_t> group);

}  // namespace Wire
