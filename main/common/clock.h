// The clock that every time in the daemon is of, and the pause. Callable from any thread.
#pragma once

#include <chrono>

namespace ProcMgr {

using SteadyTime = std::chrono::steady_clock::time_point;

// Sleeps the whole duration, however often a signal interrupts it.
void SleepFor(std::chrono::nanoseconds duration);

}  // namespace ProcMgr
