// Events that callbacks on other threads report to a test, in the order in which they came.
#pragma once

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
    }
    std::vector<Event> All() const {
        const std::lock_guard guard(lock_);
        return events_;
    }
    // Waits until there are `count` events. Returns all events, also after a wait in vain.
    std::vector<Event> WaitFor(size_t count) const {
        ProcMgr::Tests::WaitUntil([&] { return All().size() >= count; });
        return All();
    }

private:
    mutable std::mutex lock_;
    std::vector<Event> events_;
};
