// Where base start-up waits for a service's state to change: a mutex that guards the states of the
// base services, and a condition that everything that changes one announces. The innermost lock:
// nothing but the log is locked while it is held.
#pragma once

#include <cstdint>

#include "main/common/mutex.h"

namespace ProcMgr {

class ReportedState {
public:
    // Runs `change` with the mutex held and, when it returns true, wakes the waiters.
    template <typename Change>
    void Update(Change change) {
        {
            const LockGuard lock(mutex_);
            if (!change()) {
                return;
            }
            ++changes_;
        }
        changed_.NotifyAll();
    }

    // Wakes the waiters to look again.
    void Notify() {
        Update([] { return true; });
    }

    // Counts the updates. Read it before looking at a state, then wait for it to move on: an update
    // in between is not missed.
    uint64_t GetChanges() const {
        const LockGuard lock(mutex_);
        return changes_;
    }

    void WaitForChangeSince(uint64_t seen) {
        UniqueLock lock(mutex_);
        changed_.Wait(lock, [&] { return changes_ != seen; });
    }

private:
    mutable Mutex mutex_;
    Condition changed_;
    uint64_t changes_ = 0;  // guarded by mutex_
};

}  // namespace ProcMgr
