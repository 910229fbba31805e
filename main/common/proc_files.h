// The files of /proc that the daemon reads: a process's status, threads and start time. Callable
// from any thread, also with a container's lock held: the kernel answers at once.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "wire/unique_fd.h"

namespace ProcMgr {

inline constexpr const char* PROC_DIR = "/proc/";
inline constexpr const char* KERNEL_COMMAND_LINE = "/proc/cmdline";

// "/proc/PID/FILE".
std::string ProcPath(int32_t pid, std::string_view file);
// "/proc/PID/task/TID", with "/FILE" when a file is given.
std::string ThreadPath(int32_t pid, int32_t tid, std::string_view file = {});

// The values of the lines "KEY:<blanks>VALUE" of a status file, in the order of `keys`; the value
// of a key that the file does not have is empty. Nothing, with errno, when the file cannot be
// opened or has no line: the process is gone.
std::optional<std::vector<std::string>> ReadStatusFields(const std::string& path,
                                                         std::span<const std::string_view> keys);

// Adds the ids of the threads of `pid` to `tids`. False, with errno, when they cannot be listed.
bool ReadThreadIds(int32_t pid, std::set<int32_t>& tids);

// The threads of the calling process. Keeps the directory open, because opening it takes longer
// than reading it. Not for a process that has forked after the first Read(). One thread at a time.
class OwnThreads {
public:
    // Adds the ids to `tids`. False, with errno, when they cannot be listed.
    bool Read(std::set<int32_t>& tids);
    // Whether the list may be another one than at the last Read(): the number of threads has
    // changed, or this has been asked UNCHANGED_MAX times since. The list itself takes the kernel
    // twenty times as long as the number.
    bool MayHaveChanged();

private:
    // A thread that ends when another one starts leaves the number as it is.
    static constexpr int UNCHANGED_MAX = 8;

    Wire::UniqueFd directory_;
    nlink_t links_ = 0;  // of the directory at the last Read(): one for each thread, and two
    int unchanged_ = 0;  // the number of times that MayHaveChanged() was false since
};

// The time at which the process was started, in clock ticks since boot. Nothing when it is gone.
std::optional<uint64_t> ReadStartTicks(int32_t pid);

}  // namespace ProcMgr
