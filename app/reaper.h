// Collects the exit of every child of the daemon and stores it in the record that has the pid. One
// thread of the daemon runs the reaper; it sleeps until a signal arrives.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <vector>

#include "main/common/check_loop.h"

namespace ProcMgr {

// Stores the raw wait status of a process in its record. False when no record of the container has
// the pid.
using ExitSink = std::function<bool(int32_t pid, int32_t status)>;

class Reaper {
public:
    // Each exit is offered to the sinks in their order until one returns true; a sink takes the
    // lock of its own container. `onExit` is called after each exit has been stored, and the pid is
    // freed afterwards, within two milliseconds. `onWake` is called after every wake-up and the
    // look for exits; when it returns true, again within two milliseconds. Both are called without
    // a lock.
    Reaper(std::vector<ExitSink> sinks, std::function<void()> onExit, std::function<bool()> onWake);

    // The body of the thread. Ends when `running` is false and the signal event has been woken.
    void Run(const std::atomic<bool>& running);

    // Collects the exits of all children that have ended.
    void CollectExits();

private:
    void Store(const siginfo_t& exit);

    const std::vector<ExitSink> sinks_;
    const std::function<void()> onExit_;
    const std::function<bool()> onWake_;
};

// Looks for exits that no signal has announced, and wakes the reaper when there is one: a library
// that takes SIGCHLD with a handler or a descriptor of its own may take it from the reaper. A look
// takes the kernel longer the more children there are.
class ExitCheck final : public PeriodicCheck {
public:
    void Run() override;
};

}  // namespace ProcMgr
