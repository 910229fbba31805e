// The daemon's one clock: the type of every point in time, the pause of a thread, and the interface
// through which loops read the clock and wait, so that a test can run them without real time.
// Callable from any thread.
#pragma once

#include <chrono>
#include <functional>

#include "main/common/mutex.h"

namespace ProcMgr {

using SteadyTime = std::chrono::steady_clock::time_point;

// Sleeps for the whole duration; the sleep goes on after an interruption by a signal.
void SleepFor(std::chrono::nanoseconds duration);

class Clock {
public:
    // The system's monotonic clock, which does not run while the system is suspended.
    static Clock& System();

    virtual ~Clock() = default;

    virtual SteadyTime Now() = 0;
    virtual void Sleep(std::chrono::nanoseconds duration) = 0;
    // Waits on `condition` until `isDone` is true, or until `end`. The caller holds `lock`, and so
    // does every call of `isDone`. Returns the last result of `isDone`.
    virtual bool WaitUntil(Condition& condition, UniqueLock& lock, SteadyTime end,
                           const std::function<bool()>& isDone) = 0;
};

}  // namespace ProcMgr
