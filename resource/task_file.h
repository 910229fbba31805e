// The one way into a control group: writing a process or thread id into its tasks file. Also for
// the child between fork and execv: nothing here takes a lock. And what the tasks files hold, for
// the periodic check.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ProcMgr {

// Writes the id into the tasks file at `path`. False when there is no such file; what the kernel
// says to the write is not reported.
bool AppendTid(const std::string& path, int32_t tid);

// Writes the id into each of the files. False when some are missing: each of them is named at the
// end of `error`, the others are written all the same.
bool AppendTidToAll(const std::vector<std::string>& paths, int32_t tid, std::string& error);

// What tasks files hold. Each is read once, when it is first asked for. Not thread-safe.
class TaskFiles {
public:
    bool IsThere(const std::string& path) { return Read(path).has_value(); }
    bool Holds(const std::string& path, int32_t tid);

private:
    using Ids = std::vector<int32_t>;  // ascending

    // Nothing when it cannot be opened.
    const std::optional<Ids>& Read(const std::string& path);

    std::map<std::string, std::optional<Ids>> files_;
};

}  // namespace ProcMgr
