// The condition on which base start-up waits for the base services: a counter of the changes of
// their states, and a stop flag. Base start-up reads the counter and waits; the request handlers,
// the check thread and the stop of the daemon wake it. Its mutex is the last of the three ordered
// locks: no other mutex is taken while it is held.
#pragma once

#include <cstdint>

#include "main/common/mutex.h"

namespace ProcMgr {

class ReportedState {
public:
    // Counts a change and wakes the waiting threads. The lock of the base services may be held.
    void Notify() PROCMGR_EXCLUDES(mutex_) { Change(false); }

    // Ends base start-up: wakes the waiting threads, which then find IsStopped().
    void Stop() PROCMGR_EXCLUDES(mutex_) { Change(true); }
    bool IsStopped() const PROCMGR_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return isStopped_;
    }

    // The number of changes so far. A thread that reads the counter first, the states second, and
    // then waits for the counter to differ misses no change.
    uint64_t GetChanges() const PROCMGR_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return changes_;
    }

    // Waits, without a time limit, until the counter differs from `seen`. Not with a lock held.
    void WaitForChangeSince(uint64_t seen) PROCMGR_EXCLUDES(mutex_) {
        UniqueLock lock(mutex_);
        changed_.Wait(lock, [&]() PROCMGR_REQUIRES(mutex_) { return changes_ != seen; });
    }

private:
    void Change(bool isStop) PROCMGR_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            isStopped_ = isStopped_ || isStop;
            ++changes_;
        }
        changed_.NotifyAll();
    }

    mutable Mutex mutex_;
    Condition changed_;
    uint64_t changes_ PROCMGR_GUARDED_BY(mutex_) = 0;
    bool isStopped_ PROCMGR_GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr
