#include "resource/wake_up_watch.h"

#include <algorithm>
#include <ctime>

namespace ProcMgr {
namespace {

constexpr std::chrono::seconds SUSPEND_MIN{1};

std::chrono::nanoseconds Read(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

std::chrono::nanoseconds WakeUpWatch::TimeSuspended() {
    // The clock that goes on is read first: a thread that is held up between the two readings then
    // finds a time that is too short, not one that looks like a suspend.
    const std::chrono::nanoseconds boot = Read(CLOCK_BOOTTIME);
    return boot - Read(CLOCK_MONOTONIC);
}

bool WakeUpWatch::HasWokenUp() {
    const LockGuard lock(mutex_);
    const std::chrono::nanoseconds before = suspended_;
    // The result of TimeSuspended() may be too small. std::max keeps the old value then: a smaller
    // stored value would make the next call report a suspend.
    suspended_ = std::max(before, TimeSuspended());
    return suspended_ - before > SUSPEND_MIN;
}

}  // namespace ProcMgr
