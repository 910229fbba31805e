#include "main/common/instance_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "main/common/log.h"

namespace ProcMgr {
namespace {

constexpr const char* LOCK_FILE = "/run/process-manager.lock";
constexpr mode_t LOCK_MODE = 0600;

}  // namespace

InstanceLock::~InstanceLock() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

// A record lock belongs to the process: a child does not inherit it, and the kernel can give the
// pid of the process that holds it.
std::optional<pid_t> InstanceLock::Take() {
    fd_ = open(LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, LOCK_MODE);
    if (fd_ < 0) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : lock file %s cannot be made, errno=%d", LOCK_FILE,
                   errno);
        return std::nullopt;
    }
    for (;;) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (fcntl(fd_, F_SETLK, &lock) == 0) {
            return std::nullopt;
        }
        if ((errno != EACCES && errno != EAGAIN) || fcntl(fd_, F_GETLK, &lock) != 0) {
            ProcMgrLog(LOG_WARNING, "PROCMGR : lock file %s cannot be locked, errno=%d", LOCK_FILE,
                       errno);
            return std::nullopt;
        }
        // The daemon that held the lock may have ended since the attempt to lock.
        if (lock.l_type != F_UNLCK) {
            return lock.l_pid;
        }
    }
}

}  // namespace ProcMgr
