// The loop of the check thread: passes over containers of supervised records, and checks that run
// every so many cycles. The loop uses its containers and checks only through the interfaces below.
// The wait thread makes extra passes, too: a process that has died is restarted by the thread that
// has collected its exit, and the check thread does what may follow later.
//
// Cycles lie on a grid of 30 ms that begins when the loop does. Passes are made at the first cycle
// and at the cycle after a request; passes in between, which would find nothing, are left out.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "main/common/check_requests.h"
#include "main/common/clock.h"

namespace ProcMgr {

// A container of records that the loop supervises. The implementation takes its own lock.
class Supervised {
public:
    virtual ~Supervised() = default;

    // Moves the records from state to state. May throw: the next cycle checks again.
    virtual void Check(CheckPass pass) = 0;
    // Drops the records that the pass has found finished. Called after every container has been
    // checked.
    virtual void RemoveTerminatedApps(CheckPass pass) = 0;
    // Completes what passes have left to do: the container has requested it with
    // CheckRequests::RequestCompletion(). Called on the check thread, while the wait thread may
    // make a pass. Does not throw.
    virtual void Complete() {}
};

// A check that runs every so many cycles, on the loop's thread.
class PeriodicCheck {
public:
    virtual ~PeriodicCheck() = default;

    // May throw: the check runs again after its period.
    virtual void Run() = 0;
    // False when Run() would find nothing unless a pass is made before. The loop then does not wake
    // up for this check, but runs it when it is awake for something else. Does not throw.
    virtual bool IsWanted() const { return true; }
};

// The cycles at which a periodic check is due.
class CycleTimer {
public:
    // Due at the cycle `first`, counted from 0, and every `period` cycles after that.
    constexpr CycleTimer(uint64_t first, uint64_t period) : next_(first), period_(period) {}

    uint64_t GetNext() const { return next_; }

    // True when the check is due at `cycle`, or was due at a cycle that was left out; the timer
    // then moves on to the next cycle of its period.
    bool TakeDue(uint64_t cycle) {
        if (cycle < next_) {
            return false;
        }
        next_ += ((cycle - next_) / period_ + 1) * period_;
        return true;
    }

private:
    uint64_t next_;
    uint64_t period_;
};

class CheckLoop {
public:
    struct Periodic {
        CycleTimer timer;
        PeriodicCheck& check;
        // Of the loop: a pass has been made since the check last ran.
        bool hasPassed = false;
    };

    // The containers are checked in the given order, the periodic checks run in the given order.
    // All of them, `requests` and `clock` must outlive this object.
    CheckLoop(CheckRequests& requests, std::vector<std::reference_wrapper<Supervised>> containers,
              std::vector<Periodic> checks, Clock& clock = Clock::System());

    // The body of the check thread. Returns after requests.Stop().
    void Run();

    // Makes the extra pass that is requested, on the calling thread. Nothing happens when none is
    // requested, or when another thread makes a pass: the check thread then makes the extra pass
    // afterwards. Does not throw.
    void RunUrgent();

private:
    bool MakeExtraPass();
    void CheckContainers(CheckPass pass);
    void Complete();
    void RunPeriodicChecks(uint64_t cycle);
    // The time of the next cycle at which a periodic check is due and wanted.
    SteadyTime NextDue(SteadyTime begin) const;

    CheckRequests& requests_;
    const std::vector<std::reference_wrapper<Supervised>> containers_;
    std::vector<Periodic> checks_;
    Clock& clock_;
};

}  // namespace ProcMgr
