// Where the daemon's own threads and those of the priority applications belong, and the periodic
// check that puts them there. CheckThread runs the check; the start-up thread starts it.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/managed_apps.h"
#include "resource/task_file.h"

namespace ProcMgr {

class AffinityCheck {
public:
    // All three must outlive this object.
    AffinityCheck(const CgroupMgr& cgroups, const CoreAffinityMgr& affinity, ManagedApps& apps)
        : cgroups_(cgroups), affinity_(affinity), apps_(apps) {}

    // Puts the daemon in its place; from now on the check has something to do. Once the core lists
    // and the host resource file have been read.
    void Start();

    // One check. False, with nothing done, before Start.
    bool Run();

private:
    struct Place;

    void PlaceOwnThreads();
    void AddOwnTids(const std::set<int32_t>& tids);
    bool IsBound(const ManagedApp& app) const;
    Place MakePlace(const ManagedApp& app) const;
    static std::vector<std::string> FindMissing(const Place& place, int32_t tid, TaskFiles& files);
    // Puts the main thread and each new thread of the application where it belongs. What is there
    // already is not written: hundreds of processes would take the kernel long.
    void PlacePriorityApp(const ManagedApp& app, TaskFiles& files);
    void PlacePriorityThread(const ManagedApp& app, int32_t tid,
                             const std::vector<std::string>& missing);

    const CgroupMgr& cgroups_;
    const CoreAffinityMgr& affinity_;
    ManagedApps& apps_;
    std::atomic<bool> isStarted_{false};
    std::set<int32_t> ownTids_;  // placed before; the start-up thread's until isStarted_
};

}  // namespace ProcMgr
