// The view of the managed processes that resource control is given: copies of what is stored in the
// records of base services and general applications, so that nothing in resource/ runs while a
// container of records is locked. App::ManagedRecords implements it.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "main/common/clock.h"

namespace ProcMgr {

// The state of one managed process at the time of the call that returned it.
struct ManagedApp {
    std::string name;
    int32_t pid = 0;
    SteadyTime startTime{};  // with the pid it identifies the process: pids are reused
    std::vector<uint32_t> cores;
    std::string cpuset;
    std::string cpuGroup;
    std::string blkioGroup;
    bool isDelayed = false;         // pinned to `cores` on request, not at the launch
    std::set<int32_t> notedTids{};  // the threads that NoteTids has stored
};

// Selects applications that have a process: all, those with isDelayed, or the priority applications
// that are running.
enum class ManagedFilter { ALL, DELAYED, RUNNING_PRIORITY };

// Every operation takes the locks of the containers for a short time: callable from any thread that
// holds no lock that is taken after those.
class ManagedApps {
public:
    virtual ~ManagedApps() = default;

    // Copies of the records that the filter selects.
    virtual std::vector<ManagedApp> GetManagedApps(ManagedFilter filter) = 0;

    // Whether the application still has the process of this pid and start time. The process may end
    // right afterwards, but its pid is not reused before the exit has been stored in the record.
    virtual bool IsPresent(const ManagedApp& app) = 0;

    // Stores the ids of the threads of the process; does nothing when IsPresent(app) is false.
    virtual void NoteTids(const ManagedApp& app, const std::set<int32_t>& tids) = 0;

    // The name of the application whose process has this pid.
    virtual std::optional<std::string> GetNameOf(int32_t pid) = 0;
    // Whether an application of this name has a process.
    virtual bool HasProcess(const std::string& name) = 0;
    // Whether an application of this name has a record or is configured.
    virtual bool IsKnown(const std::string& name) = 0;
};

}  // namespace ProcMgr
