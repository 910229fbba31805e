#include "app/change_log.h"

#include <algorithm>
#include <chrono>

namespace ProcMgr::App {

void ChangeLog::Open() {
    std::vector<Entry> entries(SIZE);
    const LockGuard lock(mutex_);
    entries_.swap(entries);
}

SteadyTime ChangeLog::Add(AppKind kind, std::string_view name, int32_t pid,
                          const StateChange& change, int32_t exitStatus) {
    counters_.stateChanges.fetch_add(1, std::memory_order_relaxed);
    const LockGuard lock(mutex_);
    // Under the lock, so that the times rise with the numbers.
    const SteadyTime now = std::chrono::steady_clock::now();
    if (entries_.empty()) {
        return now;
    }
    Entry& entry = entries_[++last_ % SIZE];
    entry.number = last_;
    entry.at = now;
    entry.pid = pid;
    entry.exitStatus = exitStatus;
    entry.change = change;
    entry.kind = kind;
    const size_t length = std::min(name.size(), NAME_SIZE);
    std::copy_n(name.begin(), length, entry.name.begin());
    entry.name[length] = '\0';
    return now;
}

std::vector<ChangeLog::Entry> ChangeLog::GetSince(uint64_t number) const {
    std::vector<Entry> found;
    found.reserve(SIZE);
    const LockGuard lock(mutex_);
    const uint64_t oldest = last_ > SIZE ? last_ - SIZE + 1 : 1;
    // A number above the last one gives nothing, even the highest one.
    for (uint64_t next = number < last_ ? std::max(number + 1, oldest) : last_ + 1; next <= last_;
         ++next) {
        found.push_back(entries_[next % SIZE]);
    }
    return found;
}

}  // namespace ProcMgr::App
