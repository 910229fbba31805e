// A value of the system that is read again only when the last reading is older than BATCH_TIME. At
// boot, and when many processes die at once, a launch follows the other within less than a
// millisecond, and one reading serves them all.
#pragma once

#include <chrono>
#include <optional>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr {

inline constexpr std::chrono::milliseconds BATCH_TIME{20};

// Callable from any thread.
template <typename Value>
class Recent {
public:
    // The last reading; nothing when it is too old.
    std::optional<Value> Find() PROCMGR_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return std::chrono::steady_clock::now() - read_ < BATCH_TIME ? value_ : std::nullopt;
    }

    // The last reading; when it is too old, the result of `read()`, which is called without a lock.
    template <typename Read>
    Value Get(const Read& read) PROCMGR_EXCLUDES(mutex_) {
        if (const std::optional<Value> recent = Find()) {
            return *recent;
        }
        // The time before the reading: a change that comes after it is seen by the next reading.
        const SteadyTime now = std::chrono::steady_clock::now();
        Value value = read();
        const LockGuard lock(mutex_);
        value_ = value;
        read_ = now;
        return value;
    }

private:
    Mutex mutex_;
    std::optional<Value> value_ PROCMGR_GUARDED_BY(mutex_);
    SteadyTime read_ PROCMGR_GUARDED_BY(mutex_){};
};

}  // namespace ProcMgr
