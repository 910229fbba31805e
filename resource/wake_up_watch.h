// Finds out that the system has been suspended, from two clocks of the kernel: CLOCK_BOOTTIME runs
// during a suspend, CLOCK_MONOTONIC does not. The check thread asks in each affinity check; the
// platform's call after a resume asks too, so that the check thread does not recover from the same
// suspend again.
#pragma once

#include <chrono>

#include "main/common/mutex.h"

namespace ProcMgr {

class WakeUpWatch {
public:
    // Whether the system has been suspended for more than a second since the last call, or since
    // this object was created. Callable from any thread.
    bool HasWokenUp() PROCMGR_EXCLUDES(mutex_);

private:
    // The time that the system has been suspended since its boot.
    static std::chrono::nanoseconds TimeSuspended();

    Mutex mutex_;
    // TimeSuspended() at the last call.
    std::chrono::nanoseconds suspended_ PROCMGR_GUARDED_BY(mutex_) = TimeSuspended();
};

}  // namespace ProcMgr
