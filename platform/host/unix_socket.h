// The listening Unix sockets of the host platform: their directories, their files, and the peers
// that are accepted on them. Used by the messaging, the heartbeat and the power library.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "wire/unique_fd.h"

namespace PlatformHost {

using Wire::UniqueFd;

// Makes the directories of the messaging library. Returns 0 or a negative errno.
int32_t MakeMessagingDirectories();

// A non-blocking SEQPACKET socket with a file of its own in the file system. Not thread-safe.
class BoundSocket {
public:
    BoundSocket() = default;
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;
    ~BoundSocket() { Close(); }

    // Binds the socket to `path`; a file that an earlier process left there is replaced. The file
    // gets exactly `mode`, and the group `gid` unless that is NO_GROUP. Returns 0 or a negative
    // errno. Peers can connect only after Listen.
    int32_t Bind(const std::string& path, mode_t mode, gid_t gid);
    static constexpr auto NO_GROUP = static_cast<gid_t>(-1);

    // Returns 0 or a negative errno.
    int32_t Listen(int backlog) const;

    // Closes the socket and removes its file, unless another process has put its own file there.
    void Close();

    int Fd() const { return socket_.Get(); }

private:
    int32_t SetUpFile(mode_t mode, gid_t gid);

    UniqueFd socket_;
    std::string path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

struct AcceptedPeer {
    UniqueFd socket;
    ucred credentials{};  // of the process that connected, from the kernel
};

enum class AcceptResult {
    ACCEPTED,
    REFUSED,    // the peer has ended its connection, or the caller refuses it
    NONE,       // no peer is waiting
    EXHAUSTED,  // no descriptor or memory is left; a peer is still waiting
};

// Accepts one peer of any user without waiting; `peer` is set after ACCEPTED only.
AcceptResult AcceptPeer(int listener, AcceptedPeer& peer);

}  // namespace PlatformHost
