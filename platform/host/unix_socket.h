// A Unix socket bound to a path, for the messaging and the heartbeat library of the host platform.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "wire/unique_fd.h"

namespace PlatformHost {

using Wire::UniqueFd;

// A non-blocking Unix socket with a file of its own in the file system. Not thread-safe.
class BoundSocket {
public:
    BoundSocket() = default;
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;
    ~BoundSocket() { Close(); }

    // Binds a socket of `type` to `path`; a file that an earlier process left there is replaced.
    // The file gets exactly `mode`, and the group `gid` unless that is the gid_t -1. Returns 0 or
    // a negative errno. Nobody can connect before the caller listens.
    int32_t Bind(int type, const std::string& path, mode_t mode, gid_t gid);

    // Closes the socket and removes its file, unless another process has put its own there.
    void Close();

    int Fd() const { return socket_.Get(); }

private:
    int32_t SetUpFile(mode_t mode, gid_t gid);

    UniqueFd socket_;
    std::string path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace PlatformHost
