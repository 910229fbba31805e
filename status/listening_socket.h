// The socket of the status endpoint and its file. The status thread uses it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "wire/unique_fd.h"

namespace ProcMgr::Status {

class ListeningSocket {
public:
    ListeningSocket() = default;
    // Removes the file, unless another one has taken its place.
    ~ListeningSocket() { Close(); }
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    // Makes the directory of `path` if it is missing, and the socket: mode 0660 with the group,
    // 0600 without one. The file of an earlier daemon is replaced. False, with a log line, on
    // failure.
    bool Open(const std::string& path, std::optional<gid_t> group);
    void Close();

    int GetFd() const { return fd_.Get(); }

private:
    bool Bind() const;
    bool SetUpFile(std::optional<gid_t> group);

    std::string path_;
    Wire::UniqueFd fd_;
    dev_t device_ = 0;  // of the file
    ino_t inode_ = 0;
};

}  // namespace ProcMgr::Status
