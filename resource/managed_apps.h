// What resource control needs to know of the managed processes: copies of what their records say,
// so that nothing here ever works under the lock of a container of records. The roof implements it
// over both containers.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "main/common/clock.h"

namespace ProcMgr {

// A managed process as it was when it was looked at.
struct ManagedApp {
    std::string name;
    int32_t pid = 0;
    SteadyTime startTime{};  // with the pid it tells this process from every other one
    std::vector<uint32_t> cores;
    std::string cpuset;
    std::string cpuGroup;
    std::string blkioGroup;
    bool isDelayed = false;         // its cores are bound on request, not at its launch
    std::set<int32_t> notedTids{};  // the threads that it is noted to have
};

enum class ManagedFilter { ALL, DELAYED, RUNNING_PRIORITY };

class ManagedApps {
public:
    virtual ~ManagedApps() = default;

    // Those that have a process.
    virtual std::vector<ManagedApp> GetManagedApps(ManagedFilter filter) = 0;

    // Whether the process is still there and the application's. Its exit may be stored right
    // afterwards, but its pid is not reused before that.
    virtual bool IsPresent(const ManagedApp& app) = 0;

    // Notes which threads the process has, unless it is not there any more.
    virtual void NoteTids(const ManagedApp& app, const std::set<int32_t>& tids) = 0;

    // The application whose process has this pid.
    virtual std::optional<std::string> GetNameOf(int32_t pid) = 0;
    // Whether an application of this name has a process.
    virtual bool HasProcess(const std::string& name) = 0;
    // Whether there is an application of this name, with a process or without.
    virtual bool IsKnown(const std::string& name) = 0;
};

}  // namespace ProcMgr
