// Notices that the system has been suspended since the last look. Any thread may look.
#pragma once

#include <chrono>

#include "main/common/mutex.h"

namespace ProcMgr {

class WakeUpWatch {
public:
    // True when the clock that goes on during a suspend has gained more than a second on the one
    // that does not since the last look, or since this object was made.
    bool HasWokenUp();

private:
    static std::chrono::nanoseconds TimeSuspended();

    Mutex mutex_;
    std::chrono::nanoseconds suspended_ = TimeSuspended();  // guarded by mutex_
};

}  // namespace ProcMgr
