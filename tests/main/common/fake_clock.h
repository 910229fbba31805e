// A clock for tests of loops: time passes only in the waits of the loop, and events happen at their
// times during a wait, on the waiting thread. One thread uses it.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>

#include "main/common/clock.h"

namespace ProcMgr {

class FakeClock final : public Clock {
public:
    // `time` and Elapsed() count from the construction.
    void At(std::chrono::milliseconds time, std::function<void()> event) {
        events_.emplace(begin_ + time, std::move(event));
    }
    std::chrono::milliseconds Elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(now_ - begin_);
    }

    SteadyTime Now() override { return now_; }
    void Sleep(std::chrono::nanoseconds duration) override {
        const SteadyTime end = now_ + duration;
        while (RunEvent(end)) {
        }
        now_ = std::max(now_, end);
    }
    bool WaitUntil(Condition& /*condition*/, UniqueLock& lock, SteadyTime end,
                   const std::function<bool()>& isDone) override PROCMGR_UNCHECKED {
        for (bool hasRun = true; hasRun && !isDone();) {
            lock.Unlock();
            hasRun = RunEvent(end);
            if (!hasRun && end == SteadyTime::max()) {
                throw std::logic_error("no event ends this wait");
            }
            now_ = hasRun ? now_ : std::max(now_, end);
            lock.Lock();
        }
        return isDone();
    }

private:
    // Runs the next event, if its time comes before `end`.
    bool RunEvent(SteadyTime end) {
        if (events_.empty() || events_.begin()->first > end) {
            return false;
        }
        const auto event = events_.extract(events_.begin());
        now_ = std::max(now_, event.key());
        event.mapped()();
        return true;
    }

    const SteadyTime begin_{std::chrono::hours(1)};
    SteadyTime now_ = begin_;
    std::multimap<SteadyTime, std::function<void()>> events_;
};

}  // namespace ProcMgr
