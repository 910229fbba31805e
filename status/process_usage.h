// What a process uses of the machine, from /proc/PID/stat. Called by the status thread without a
// lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ProcMgr::Status {

struct ProcessUsage {
    uint64_t cpuMs = 0;
    uint64_t rssKib = 0;
    uint64_t threads = 0;
};

// The usage in the contents of a stat file; nothing when they are malformed. `ticks`: clock ticks
// in a second; `pageBytes`: of a memory page.
std::optional<ProcessUsage> ParseProcessUsage(std::string_view stat, uint64_t ticks,
                                              uint64_t pageBytes);

// Nothing when there is no such process. The caller makes sure that the pid is still that of the
// process that it means.
std::optional<ProcessUsage> ReadProcessUsage(int32_t pid);

}  // namespace ProcMgr::Status
