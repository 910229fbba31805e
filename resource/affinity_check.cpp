#include "resource/affinity_check.h"

#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "resource/cgroup_paths.h"

namespace ProcMgr {
// Where the threads of one priority application belong.
struct AffinityCheck::Place {
    std::vector<std::string> taskFiles;
    std::optional<CoreMask> mask;
    bool isPinned = true;      // its cores are checked, too
    bool isForAiCpus = false;  // pinning it has moved it from its cpuset to that of its cores
};

// Whether a delayed application has been bound to its cores.
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

// The tasks files into which the thread has to be written.
std::vector<std::string> AffinityCheck::FindMissing(const Place& place, int32_t tid,
                                                    TaskFiles& files) {
    std::vector<std::string> missing;
    for (const std::string& path : place.taskFiles) {
        const bool isLeft = place.isForAiCpus && path.starts_with(CGROUP_CPUSET_ROOT);
        const bool isIn = isLeft ? files.IsThere(path) && files.Holds(AI_CPUSET_TASKS, tid)
                                 : files.Holds(path, tid);
        if (!isIn) {
            missing.push_back(path);
        }
    }
    return missing;
}

void AffinityCheck::Start() {
    PlaceOwnThreads();
    std::string error;
    if (affinity_.SetCoreAffinity(ProcMgrEnv::GetInstance().GetPid(), {}, error) != AFFINITY_OK) {
        ProcMgrSysLog(LOG_WARNING, "PROCMGR: pm SetCoreAffinityToOs failed, err=%s", error.c_str());
    }
    isStarted_ = true;
}

bool AffinityCheck::Run() {
    if (!isStarted_) {
        return false;
    }
    PlaceOwnThreads();
    TaskFiles files;
    for (const ManagedApp& app : apps_.GetManagedApps(ManagedFilter::RUNNING_PRIORITY)) {
        PlacePriorityApp(app, files);
    }
    return true;
}

void AffinityCheck::PlaceOwnThreads() {
    std::set<int32_t> tids;
    if (!CoreAffinityMgr::GetTids(ProcMgrEnv::GetInstance().GetPid(), tids)) {
        return;
    }
    std::set<int32_t> added;
    std::set_difference(tids.begin(), tids.end(), ownTids_.begin(), ownTids_.end(),
                        std::inserter(added, added.end()));
    AddOwnTids(added);
    ownTids_.swap(tids);
}

void AffinityCheck::AddOwnTids(const std::set<int32_t>& tids) {
    for (const int32_t tid : tids) {
        std::string error;
        const CgroupTaskInfo task{PROCMGR_NAME, tid, DEFAULT_CPU_GROUP, DEFAULT_CPUSET, "", {}};
        if (!cgroups_.AddToCgroups(task, error)) {
            ProcMgrSysLog(LOG_WARNING, "Add pm tids to cgroup tasks failed, errinfo=%s, tid=%u",
                          error.c_str(), static_cast<unsigned>(tid));
        }
    }
}

void AffinityCheck::PlacePriorityApp(const ManagedApp& app, TaskFiles& files) {
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
        const std::vector<std::string> missing = FindMissing(place, tid, files);
        if (missing.empty() && (!place.isPinned || CoreAffinityMgr::HasCores(tid, place.mask))) {
            continue;
        }
        // Asked after the threads were listed: they are this process's, or nothing is done.
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
    // To join a cpuset has undone the bind of one that has been bound.
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
