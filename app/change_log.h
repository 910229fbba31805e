// The last changes of state of all managed processes, and counters since the daemon's start. The
// status endpoint shows them. The histories of the records write them, so nothing is written while
// the status endpoint is off. Callable from any thread with any lock held; the mutex is a leaf.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "app/app_kind.h"
#include "app/state_change.h"
#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr::App {

class ChangeLog {
public:
    // The number of changes that are kept, and the bytes of a name that are kept of it.
    static constexpr size_t SIZE = 512;
    static constexpr size_t NAME_SIZE = 127;  // no name of a manifest is longer

    struct Entry {
        uint64_t number = 0;  // from 1, without gaps
        SteadyTime at{};
        int32_t pid = 0;
        int32_t exitStatus = 0;  // the raw wait status, for ChangeReason::EXITED
        StateChange change;
        AppKind kind = AppKind::BASE;
        std::array<char, NAME_SIZE + 1> name{};  // ends with zero

        std::string_view GetName() const { return name.data(); }
    };

    struct Counters {
        std::atomic<uint64_t> starts{0};
        std::atomic<uint64_t> startFailures{0};
        std::atomic<uint64_t> exits{0};
        std::atomic<uint64_t> unknownExits{0};  // of processes that no record has
        std::atomic<uint64_t> stateChanges{0};
    };

    // Allocates the memory of the entries. Called once, before the first Add().
    void Open() PROCMGR_EXCLUDES(mutex_);

    // Stores a change and returns its time. Allocates nothing.
    SteadyTime Add(AppKind kind, std::string_view name, int32_t pid, const StateChange& change,
                   int32_t exitStatus) PROCMGR_EXCLUDES(mutex_);

    // The entries that are kept and have a number above `number`, oldest first.
    std::vector<Entry> GetSince(uint64_t number) const PROCMGR_EXCLUDES(mutex_);

    Counters& GetCounters() { return counters_; }
    const Counters& GetCounters() const { return counters_; }

private:
    mutable Mutex mutex_;
    std::vector<Entry> entries_ PROCMGR_GUARDED_BY(mutex_);  // the entry N is at N % SIZE
    uint64_t last_ PROCMGR_GUARDED_BY(mutex_) = 0;           // the number of the last entry
    Counters counters_;
};

}  // namespace ProcMgr::App
