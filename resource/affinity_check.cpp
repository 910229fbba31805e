#include "resource/affinity_check.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "resource/cgroup_paths.h"
#include "resource/task_file.h"

namespace ProcMgr {
namespace {

// A thread of the daemon.
CgroupTaskInfo MakeOwnTask(int32_t tid) {
    return {PROCMGR_NAME, tid, DEFAULT_CPU_GROUP, DEFAULT_CPUSET, "", {}};
}

}  // namespace

// The control groups and cores of one priority application's threads.
struct AffinityCheck::Place {
    std::vector<std::string> taskFiles;
    std::optional<CoreMask> mask;
    bool isPinned = true;  // the cores are checked too: the application is not a delayed one
    // The pinning to accelerator cores has moved the threads from the application's cpuset into the
    // cpuset of these cores, where they belong.
    bool isForAiCpus = false;
};

bool AffinityCheck::IsBound(const ManagedApp& app) const {
    return affinity_.IsStored(app.pid, app.pid);
}

AffinityCheck::Place AffinityCheck::MakePlace(const ManagedApp& app) const {
    const CgroupTaskInfo task{app.name,
                              0,
                              app.cpuGroup.empty() ? DEFAULT_CPU_GROUP : app.cpuGroup,
                              app.cpuset.empty() ? DEFAULT_CPUSET : app.cpuset,
                              app.blkioGroup,
                              {}};
    Place place;
    place.taskFiles = cgroups_.GetTaskPaths(task);
    place.mask = affinity_.MakeMask(app.cores);
    place.isPinned = !app.isDelayed;
    place.isForAiCpus = place.mask && place.mask->aiCores > 0 && (!app.isDelayed || IsBound(app));
    return place;
}

std::vector<std::string> AffinityCheck::FindMissing(const Place& place, int32_t tid,
                                                    GroupMembers& members) {
    std::vector<std::string> missing;
    for (const std::string& path : place.taskFiles) {
        const bool isReplaced = place.isForAiCpus && path.starts_with(CGROUP_CPUSET_ROOT);
        const bool isIn = isReplaced
                              ? members.HasGroup(path) && members.Contains(AI_CPUSET_TASKS, tid)
                              : members.Contains(path, tid);
        if (!isIn) {
            missing.push_back(path);
        }
    }
    return missing;
}

void AffinityCheck::Start() {
    PlaceOwnThreads();
    LookForGroups();
    std::string error;
    if (affinity_.SetCoreAffinity(ProcMgrEnv::GetInstance().GetPid(), {}, error) != AFFINITY_OK) {
        ProcMgrSysLog(LOG_WARNING, "PROCMGR: pm SetCoreAffinityToOs failed, err=%s", error.c_str());
    }
    isStarted_ = true;
}

bool AffinityCheck::IsWanted() const {
    return !isStarted_ || hasGroups_ || hasPriorityApps_ || affinity_.HasMadeMask() ||
           cgroups_.HasDefaultCpuSet();
}

bool AffinityCheck::Run() {
    if (!isStarted_) {
        return false;
    }
    if (ownThreads_.MayHaveChanged()) {
        PlaceOwnThreads();
    }
    LookForGroups();
    GroupMembers members;
    const auto apps = apps_.GetManagedApps(ManagedFilter::RUNNING_PRIORITY);
    hasPriorityApps_ = !apps.empty();
    for (const ManagedApp& app : apps) {
        PlacePriorityApp(app, members);
    }
    return true;
}

void AffinityCheck::PlaceOwnThreads() {
    std::set<int32_t> tids;
    if (!ownThreads_.Read(tids) &&
        !CoreAffinityMgr::GetTids(ProcMgrEnv::GetInstance().GetPid(), tids)) {
        return;
    }
    std::set<int32_t> added;
    std::set_difference(tids.begin(), tids.end(), ownTids_.begin(), ownTids_.end(),
                        std::inserter(added, added.end()));
    AddOwnTids(added);
    ownTids_.swap(tids);
}

void AffinityCheck::LookForGroups() {
    if (hasGroups_) {
        return;
    }
    const std::vector<std::string> groups = cgroups_.GetTaskPaths(MakeOwnTask(0));
    hasGroups_ = std::any_of(groups.begin(), groups.end(), [](const std::string& path) {
        return access(path.c_str(), F_OK) == 0;
    });
}

void AffinityCheck::AddOwnTids(const std::set<int32_t>& tids) {
    for (const int32_t tid : tids) {
        std::string error;
        if (!cgroups_.AddToCgroups(MakeOwnTask(tid), error)) {
            ProcMgrSysLog(LOG_WARNING, "Add pm tids to cgroup tasks failed, errinfo=%s, tid=%u",
                          error.c_str(), static_cast<unsigned>(tid));
        }
    }
}

void AffinityCheck::PlacePriorityApp(const ManagedApp& app, GroupMembers& members) {
    if (!affinity_.CheckIsCtrlCpu(app.name, app.cores)) {
        ProcMgrSysLog(LOG_ERR, "app=%s, pid=%d, core affinity is not in ctrlcpu", app.name.c_str(),
                      app.pid);
    }
    std::set<int32_t> tids;
    if (!CoreAffinityMgr::GetTids(app.pid, tids)) {
        return;
    }
    const Place place = MakePlace(app);
    bool isPresent = false;
    for (const int32_t tid : tids) {
        if (tid != app.pid && app.notedTids.contains(tid)) {
            continue;
        }
        const std::vector<std::string> missing = FindMissing(place, tid, members);
        if (missing.empty() && (!place.isPinned || CoreAffinityMgr::HasCores(tid, place.mask))) {
            continue;
        }
        // The process is looked for after its threads were listed, and before any of them is moved:
        // otherwise they might be threads of a later process with the same pid.
        isPresent = isPresent || apps_.IsPresent(app);
        if (!isPresent) {
            return;
        }
        PlacePriorityThread(app, tid, missing);
    }
    if (tids != app.notedTids) {
        apps_.NoteTids(app, tids);
    }
}

void AffinityCheck::PlacePriorityThread(const ManagedApp& app, int32_t tid,
                                        const std::vector<std::string>& missing) {
    std::string error;
    if (!AppendTidToAll(missing, tid, error)) {
        ProcMgrSysLog(LOG_WARNING, "Add priority app to cgroup tasks failed, errinfo=%s, tid=%d",
                      error.c_str(), tid);
    }
    // A delayed application that has been bound is pinned again here: the kernel changes the cores
    // of a thread that joins a cpuset.
    if (app.isDelayed && !IsBound(app)) {
        return;
    }
    error.clear();
    if (affinity_.SetCoreAffinity(tid, app.cores, error) != AFFINITY_OK) {
        ProcMgrSysLog(LOG_WARNING, "priority app SetCoreAffinityToOs failed, errinfo=%s, app=%s",
                      error.c_str(), app.name.c_str());
    }
}

}  // namespace ProcMgr
