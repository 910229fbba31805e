// The requests for check passes over the records, and whose turn it is to make one. Containers
// request a pass whenever one of their records may change its state; without a request the check
// thread sleeps and leaves the passes out. Two threads make passes, one at a time: the check
// thread, and the wait thread when it has collected an exit. Callable from any thread. No other
// mutex is taken while its mutex is held, so it may be taken under any other.
#pragma once

#include <chrono>
#include <optional>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

// The length of a cycle of the check thread.
inline constexpr std::chrono::milliseconds CHECK_PERIOD{30};
// The longest time for which exits that follow each other put off the wake-up of the check thread.
inline constexpr std::chrono::milliseconds POSTPONE_MAX{100};

// The kind of a pass. PERIODIC passes start on the grid of the check thread's cycles. An EXTRA pass
// starts at once and looks only at the ends of processes that had lived longer than a cycle:
// processes that have lived longer than a cycle are restarted at once; a process that ends within a
// cycle of its start is restarted at most once per cycle.
enum class CheckPass { PERIODIC, EXTRA };

class CheckRequests {
public:
    // `clock` must outlive this object.
    explicit CheckRequests(Clock& clock = Clock::System()) : clock_(clock) {}

    // Requests a pass at the next cycle.
    void Request() PROCMGR_EXCLUDES(mutex_);
    // Requests an extra pass at once, and a pass at the next cycle after the check thread has been
    // woken. Wakes nobody: the caller makes the extra pass itself after TryBeginNow(), or the
    // thread that makes a pass at the time does.
    void RequestNow() PROCMGR_EXCLUDES(mutex_);
    // Requests a pass at the next cycle after the check thread has been woken. Only in a pass.
    void RequestLater() PROCMGR_EXCLUDES(mutex_);
    // Requests that the check thread completes what a pass has left to do.
    void RequestCompletion() PROCMGR_EXCLUDES(mutex_);

    // Ends the present waits; later waits return at once.
    void Stop() PROCMGR_EXCLUDES(mutex_);
    bool IsStopped() const PROCMGR_EXCLUDES(mutex_);

    // Begins an extra pass, which serves the requests for one that were made before this call.
    // False when none is requested, when another pass is under way or about to begin, and after
    // Stop(). End() follows.
    bool TryBeginNow() PROCMGR_EXCLUDES(mutex_);
    // Ends the pass of the calling thread.
    void End() PROCMGR_EXCLUDES(mutex_);

    // The wait thread's operations. The check thread is woken late for what the passes of the wait
    // thread have left to it, so that it does not take a core from the new processes.
    //
    // Called when a pass has ended: the check thread is still to be woken. Wakes it when that has
    // been put off for POSTPONE_MAX; for a cycle when Request() has been called meanwhile.
    void PostponeWake() PROCMGR_EXCLUDES(mutex_);
    // Wakes the check thread when PostponeWake() was last called at least a millisecond ago. True
    // when it is still to be woken: the wait thread then calls again after a millisecond at most.
    bool WakeWhenQuiet() PROCMGR_EXCLUDES(mutex_);
    // Wakes the check thread for the extra pass that the wait thread leaves to it.
    void Wake() PROCMGR_EXCLUDES(mutex_) { changed_.NotifyOne(); }

    // The check thread's operations.

    // Waits until anything is requested, or Stop() is called. Returns the time of the first
    // request that no pass has served; nothing when there is none at `end`.
    std::optional<SteadyTime> WaitForAny(SteadyTime end) PROCMGR_EXCLUDES(mutex_);
    // Waits until an extra pass or a completion is requested: true. False at `end` and after
    // Stop().
    bool WaitForNow(SteadyTime end) PROCMGR_EXCLUDES(mutex_);
    // Begins a pass, which serves all requests for passes that were made before this call. Waits
    // for the end of the wait thread's pass, which begins no other one first. End() follows. False,
    // without a pass, after Stop().
    bool Begin() PROCMGR_EXCLUDES(mutex_);
    // Whether a completion has been requested since the last call.
    bool TakeCompletion() PROCMGR_EXCLUDES(mutex_);

private:
    void NoteRequest() PROCMGR_REQUIRES(mutex_);
    bool IsAnyRequested() const PROCMGR_REQUIRES(mutex_) {
        return requested_ || isUrgent_ || isIncomplete_;
    }

    Clock& clock_;
    mutable Mutex mutex_;
    Condition changed_;  // only the check thread waits
    // The time of the first request for a pass that no pass has served.
    std::optional<SteadyTime> requested_ PROCMGR_GUARDED_BY(mutex_);
    bool isUrgent_ PROCMGR_GUARDED_BY(mutex_) = false;  // an extra pass is requested
    // Request() has been called since the last Begin().
    bool isForCycle_ PROCMGR_GUARDED_BY(mutex_) = false;
    // Request() has woken the check thread since the last Begin(); it does not do so in a pass.
    bool isWoken_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isIncomplete_ PROCMGR_GUARDED_BY(mutex_) = false;  // a completion is requested
    bool isPassing_ PROCMGR_GUARDED_BY(mutex_) = false;     // a pass is under way
    bool isAwaited_ PROCMGR_GUARDED_BY(mutex_) = false;     // the check thread is in Begin()
    // The times of the first call of PostponeWake() since the check thread was woken, and of the
    // last.
    std::optional<SteadyTime> postponed_ PROCMGR_GUARDED_BY(mutex_);
    SteadyTime lastPostponed_ PROCMGR_GUARDED_BY(mutex_){};
    bool isStopped_ PROCMGR_GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr
