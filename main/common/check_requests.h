// The requests for check passes over the records. Containers request a pass whenever one of their
// records may change its state; without a request the thread sleeps and leaves the passes out.
// Callable from any thread. No other mutex is taken while its mutex is held, so it may be taken
// under any other.
#pragma once

#include <chrono>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

// The length of a cycle of the check thread.
inline constexpr std::chrono::milliseconds CHECK_PERIOD{30};

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
    void Request() PROCMGR_EXCLUDES(mutex_) { Set(false); }
    // Requests an extra pass at once, and a pass at the next cycle.
    void RequestNow() PROCMGR_EXCLUDES(mutex_) { Set(true); }

    // Ends the present waits; later waits return at once.
    void Stop() PROCMGR_EXCLUDES(mutex_);
    bool IsStopped() const PROCMGR_EXCLUDES(mutex_);

    // The check thread's operations.

    // Waits until a pass is requested, or Stop() is called. False when neither was by `end`.
    bool WaitForAny(SteadyTime end) PROCMGR_EXCLUDES(mutex_);
    // Waits until an extra pass is requested: true. False at `end` and after Stop().
    bool WaitForNow(SteadyTime end) PROCMGR_EXCLUDES(mutex_);
    // Called when a pass begins: the pass serves the requests made before this call.
    void Begin(CheckPass pass) PROCMGR_EXCLUDES(mutex_);

private:
    void Set(bool isUrgent) PROCMGR_EXCLUDES(mutex_);

    Clock& clock_;
    mutable Mutex mutex_;
    Condition changed_;
    bool isRequested_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isUrgent_ PROCMGR_GUARDED_BY(mutex_) = false;  // an extra pass is requested
    bool isStopped_ PROCMGR_GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr
