// The pause of a quick start: start-up goes on when the platform sends SIGCONT or creates the
// marker file, and after 10 s at the latest. The start-up thread waits here once, between the start
// of the priority applications and the rest of the initialisation.
#pragma once

#include <atomic>

#include "main/common/clock.h"

namespace ProcMgr {

// Created by the platform to end the wait. The daemon removes the file after base start-up and at
// its own end.
inline constexpr const char* QUICK_START_MARKER = "/sys/fs/cgroup/notify_pm_done";

class QuickStartWait {
public:
    // `isStopping` becomes true when the daemon is to stop, which ends the wait. Both must outlive
    // this object.
    explicit QuickStartWait(const std::atomic<bool>& isStopping, Clock& clock = Clock::System())
        : isStopping_(isStopping), clock_(clock) {}

    // Waits, when the daemon is in quick-start mode, and leaves the mode. Logs how the wait ended.
    void WaitContinueSignal();

private:
    // False when the time is over.
    bool IsContinued();

    const std::atomic<bool>& isStopping_;
    Clock& clock_;
};

}  // namespace ProcMgr
