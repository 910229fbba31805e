#include "platform/host/muxa_gate.h"

#include <syslog.h>

#include <cerrno>

#include "platform/host/diagnostics.h"

namespace PlatformHost {

using Wire::LockGuard;

void MuxaGate::Call(int32_t fd, const MuxaRequest* request) {
    {
        const LockGuard guard(lock_);
        if (isClosing_) {
            return;
        }
        ++running_;
    }
    try {
        callback_(fd, request, name_);
    } catch (...) {
        // A callback that fails on one record must not end the process.
        WriteDiagnostic(LOG_ERR, "messaging: a handler has failed, its record is lost");
    }
    const LockGuard guard(lock_);
    --running_;
}

int32_t MuxaGate::Close() {
    const LockGuard guard(lock_);
    if (isClosed_) {
        return -EBADF;
    }
    isClosing_ = true;
    if (running_ > 0) {
        return -EBUSY;
    }
    isClosed_ = true;
    return 0;
}

bool MuxaGate::IsClosing() {
    const LockGuard guard(lock_);
    return isClosing_;
}

}  // namespace PlatformHost
