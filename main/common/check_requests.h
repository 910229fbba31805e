// Where CheckThread learns that there is something to check. Containers ask for a pass whenever one
// of their records may move; while nobody asks, the thread sleeps and its periodic cycles are left
// out. The innermost lock: it may be taken under any other.
#pragma once

#include <chrono>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

// The cycle of CheckThread.
inline constexpr std::chrono::milliseconds CHECK_PERIOD{30};

// What causes a pass over the applications. An extra pass looks only at exits of processes that had
// lived longer than a period: it makes a restart prompt, and never a crash loop faster.
enum class CheckPass { PERIODIC, EXTRA };

class CheckRequests {
public:
    // Asks for a pass at the next cycle.
    void Request() { Set(false); }
    // Asks for an extra pass at once, and for the next cycle's.
    void RequestNow() { Set(true); }

    // Ends every wait from now on.
    void Stop() {
        const LockGuard lock(mutex_);
        isStopped_ = true;
        changed_.NotifyAll();
    }

    // Waits while nothing is asked for, until `end` at most: false then.
    bool WaitForAny(SteadyTime end) {
        UniqueLock lock(mutex_);
        return changed_.WaitUntil(lock, end, [this] { return isAsked_ || isStopped_; });
    }
    // Waits until `cycle`, or for something that is wanted at once: true then.
    bool WaitForNow(SteadyTime cycle) {
        UniqueLock lock(mutex_);
        changed_.WaitUntil(lock, cycle, [this] { return isUrgent_ || isStopped_; });
        return isUrgent_ && !isStopped_;
    }

    // A pass begins: what was asked for up to now is its to find.
    void Begin(CheckPass pass) {
        const LockGuard lock(mutex_);
        isUrgent_ = false;
        isAsked_ = isAsked_ && pass == CheckPass::EXTRA;
    }

private:
    void Set(bool isUrgent) {
        const LockGuard lock(mutex_);
        if (isAsked_ && (isUrgent_ || !isUrgent)) {
            return;
        }
        isAsked_ = true;
        isUrgent_ = isUrgent_ || isUrgent;
        changed_.NotifyOne();
    }

    Mutex mutex_;
    Condition changed_;
    // All guarded by mutex_.
    bool isAsked_ = false;
    bool isUrgent_ = false;
    bool isStopped_ = false;
};

}  // namespace ProcMgr
