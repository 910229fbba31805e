// The periodic check that puts the daemon's own threads and the threads of priority applications
// into their control groups and onto their cores. The start-up thread calls Start, the check thread
// calls Run.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "main/common/proc_files.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/group_members.h"
#include "resource/managed_apps.h"

namespace ProcMgr {

class AffinityCheck {
public:
    // All three must outlive this object.
    AffinityCheck(const CgroupMgr& cgroups, const CoreAffinityMgr& affinity, ManagedApps& apps)
        : cgroups_(cgroups), affinity_(affinity), apps_(apps) {}

    // Places the daemon's own threads and lets Run do its work from now on. Called once, after the
    // core lists and the host resource file have been read.
    void Start();

    // Places the daemon's new threads and the priority applications. False, with nothing done,
    // before Start.
    bool Run();
    // False after Start, when it and the last run have found neither a control group for the
    // daemon's threads nor a priority application, and there are no cores or limits that a suspend
    // could have changed.
    bool IsWanted() const;

private:
    struct Place;

    void PlaceOwnThreads();
    void LookForGroups();
    void AddOwnTids(const std::set<int32_t>& tids);
    // Whether a delayed application has been bound to its cores.
    bool IsBound(const ManagedApp& app) const;
    Place MakePlace(const ManagedApp& app) const;
    // The tasks files of the place that the thread has to be written into.
    static std::vector<std::string> FindMissing(const Place& place, int32_t tid,
                                                GroupMembers& members);
    // Places the main thread and every thread that is not in the stored list of the application's
    // threads (ManagedApp::notedTids). Threads that are in their place are not written: with
    // hundreds of processes that would keep the kernel busy.
    void PlacePriorityApp(const ManagedApp& app, GroupMembers& members);
    void PlacePriorityThread(const ManagedApp& app, int32_t tid,
                             const std::vector<std::string>& missing);

    const CgroupMgr& cgroups_;
    const CoreAffinityMgr& affinity_;
    ManagedApps& apps_;
    std::atomic<bool> isStarted_{false};
    // Whether there is a control group for the daemon's threads, or there was one.
    std::atomic<bool> hasGroups_{false};
    std::atomic<bool> hasPriorityApps_{false};  // at the last run
    // The daemon's threads, and those that have been placed. Used by the start-up thread until
    // isStarted_ is set, then by the check thread.
    OwnThreads ownThreads_;
    std::set<int32_t> ownTids_;
};

}  // namespace ProcMgr
