// Which threads are in which control groups, as the groups' tasks files list them. The affinity
// check makes one object for each of its runs, so that each file is read once, even for hundreds of
// threads.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ProcMgr {

// Each tasks file is read when it is first asked for, and not again. For one thread only.
class GroupMembers {
public:
    // Whether the tasks file at `path` can be opened.
    bool HasGroup(const std::string& path) { return Read(path).has_value(); }
    // Whether the tasks file at `path` lists the thread.
    bool Contains(const std::string& path, int32_t tid);

private:
    using Ids = std::vector<int32_t>;  // in ascending order

    // Nothing when the file cannot be opened.
    const std::optional<Ids>& Read(const std::string& path);

    std::map<std::string, std::optional<Ids>> groups_;  // by path of the tasks file
};

}  // namespace ProcMgr
