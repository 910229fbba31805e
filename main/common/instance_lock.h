// One daemon on a machine: the lock file of the first, which the kernel releases when it is gone.
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

    // Takes the lock for the life of this object. Nothing on success, else the pid of the process
    // that has it. A lock file that cannot be made is logged, and the daemon goes on without.
    std::optional<pid_t> Take();

private:
    int fd_ = -1;
};

}  // namespace ProcMgr
