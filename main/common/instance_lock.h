// The lock file that keeps a machine from running two daemons. main() takes the lock; the kernel
// releases it when the daemon's process ends.
#pragma once

#include <sys/types.h>

#include <optional>

namespace ProcMgr {

class InstanceLock {
public:
    InstanceLock() = default;
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // Takes the lock for the lifetime of this object. Nothing on success, else the pid of the
    // process that holds the lock. Nothing, with a log line, also when the lock file cannot be
    // used: the daemon then runs without the lock.
    std::optional<pid_t> Take();

private:
    int fd_ = -1;
};

}  // namespace ProcMgr
