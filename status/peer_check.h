// Who may ask for the state of the daemon. Functions for any thread; none waits.
#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

namespace ProcMgr::Status {

// The process at the other end of a socket, when it connected.
struct Peer {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // the supplementary groups
};

// Nothing when the kernel does not tell.
std::optional<Peer> ReadPeer(int socket);

// Root, the user `self` that the daemon runs as, and the members of `group`.
bool MayAsk(const Peer& peer, uid_t self, std::optional<gid_t> group);

}  // namespace ProcMgr::Status
