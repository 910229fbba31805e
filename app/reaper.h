// Collects the exit of every child of the daemon and hands it to the record that owns the pid. One
// thread of the daemon runs it; it blocks until the kernel has something to say.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <vector>

namespace ProcMgr {

// Stores the exit of a process in its record. False when no record of the container has the pid.
using ExitSink = std::function<bool(int32_t pid, int32_t status)>;

class Reaper {
public:
    // The sinks are asked in their order; each takes its own container's lock. `onWake` is called
    // at each wake-up by a signal.
    Reaper(std::vector<ExitSink> sinks, std::function<void()> onWake);

    // Thread body; ends when `running` is false and the signal event has been woken.
    void Run(const std::atomic<bool>& running);

    // Collects every exit there is now.
    void CollectExits();

private:
    void Collect(const siginfo_t& exit);

    const std::vector<ExitSink> sinks_;
    const std::function<void()> onWake_;
};

}  // namespace ProcMgr
