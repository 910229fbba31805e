// Events that callbacks on other threads report to a test, in the order in which they came.
#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "tests/support/wait.h"

// Any thread may use it.
template <typename Event>
class EventList {
public:
    void Add(Event event) {
        const std::lock_guard guard(lock_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }
    // Waits until there are `count` events. Returns all events, also after a wait in vain.
    std::vector<Event> WaitFor(size_t count) const {
        std::unique_lock lock(lock_);
        changed_.wait_for(lock, ProcMgr::Tests::PATIENCE, [&] { return events_.size() >= count; });
        return events_;
    }

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_;
};
