// The phases of the daemon's life with the times at which they began. The main thread and the
// start-up thread enter them, the status thread reads them. The mutex is a leaf.
#pragma once

#include <vector>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr::Status {

enum class Phase {
    MAIN,
    INIT,
    PRIORITY_APPS,
    WAITING_CONTINUE,  // quick start: for the signal to go on
    CONTINUE_INIT,
    BASE_SERVICES,
    RUNNING,
    STOPPING,
};

// "main", "init", "priority-apps", ...
const char* NameOf(Phase phase);

class StartupPhases {
public:
    struct Entered {
        Phase phase = Phase::MAIN;
        SteadyTime at{};
    };

    // A phase that has been entered, or that comes after the stop has begun, is not entered again.
    void Enter(Phase phase) PROCMGR_EXCLUDES(mutex_);

    // Every phase that has been entered, in order.
    std::vector<Entered> Get() const PROCMGR_EXCLUDES(mutex_);

private:
    mutable Mutex mutex_;
    std::vector<Entered> entered_ PROCMGR_GUARDED_BY(mutex_);
};

}  // namespace ProcMgr::Status
