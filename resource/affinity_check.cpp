#include "resource/affinity_check.h"

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "main/constants.h"
#include "main/log.h"
#include "main/proc_mgr_env.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"

namespace ProcMgr {
namespace {

// The cpu group of everything that has none of its own.
constexpr const char* DEFAULT_CPU_GROUP = "OTHER";
// To list the threads of hundreds of processes takes the kernel long. The checks between two
// thorough ones only count them: one that took the place of another has its maker's groups and
// cores until then.
constexpr uint32_t THOROUGH_PERIOD = 16;

}  // namespace

void AffinityCheck::Start() {
    PlaceOwnThreads();
    std::string error;
    const CoreAffinityMgr& affinity = CoreAffinityMgr::GetInstance();
    if (affinity.SetCoreAffinity(ProcMgrEnv::GetInstance().GetPid(), {}, error) != AFFINITY_OK) {
        ProcMgrSysLog(LOG_WARNING, "PROCMGR: pm SetCoreAffinityToOs failed, err=%s", error.c_str());
    }
    isStarted_ = true;
}

bool AffinityCheck::Run() {
    if (!isStarted_) {
        return false;
    }
    PlaceOwnThreads();
    const bool isThorough = ++checks_ % THOROUGH_PERIOD == 0;
    for (const ManagedApp& app : apps_.GetManagedApps(ManagedFilter::RUNNING_PRIORITY)) {
        if (isThorough || !IsSettled(app)) {
            PlacePriorityApp(app);
        }
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
        if (!CgroupMgr::GetInstance().AddToCgroups(task, error)) {
            ProcMgrSysLog(LOG_WARNING, "Add pm tids to cgroup tasks failed, errinfo=%s, tid=%u",
                          error.c_str(), static_cast<unsigned>(tid));
        }
    }
}

bool AffinityCheck::IsSettled(const ManagedApp& app) {
    constexpr size_t OWN_LINKS = 2;  // of a directory without directories
    const std::string path = PROC_DIR + std::to_string(app.pid) + "/task";
    struct stat tasks {};
    return stat(path.c_str(), &tasks) == 0 && tasks.st_nlink == app.notedTids + OWN_LINKS;
}

void AffinityCheck::PlacePriorityApp(const ManagedApp& app) {
    std::set<int32_t> tids;
    if (!CoreAffinityMgr::GetTids(app.pid, tids)) {
        return;
    }
    // Asked after the threads were listed: they are this process's, or nothing is done.
    const std::set<int32_t> added = apps_.FindNewTids(app, tids);
    // With the main thread comes a process that has not been here before: it is told of once.
    if (added.contains(app.pid) &&
        !CoreAffinityMgr::GetInstance().CheckIsCtrlCpu(app.name, app.cores)) {
        ProcMgrSysLog(LOG_ERR, "app=%s, pid=%d, core affinity is not in ctrlcpu", app.name.c_str(),
                      app.pid);
    }
    for (const int32_t tid : added) {
        PlacePriorityThread(app, tid);
    }
    if (!added.empty()) {
        apps_.NoteTids(app, tids);
    }
}

void AffinityCheck::PlacePriorityThread(const ManagedApp& app, int32_t tid) {
    std::string error;
    const CgroupTaskInfo task{app.name,
                              tid,
                              app.cpuGroup.empty() ? DEFAULT_CPU_GROUP : app.cpuGroup,
                              app.cpuset.empty() ? DEFAULT_CPUSET : app.cpuset,
                              app.blkioGroup,
                              {}};
    if (!CgroupMgr::GetInstance().AddToCgroups(task, error)) {
        ProcMgrSysLog(LOG_WARNING, "Add priority app to cgroup tasks failed, errinfo=%s, tid=%d",
                      error.c_str(), tid);
    }
    CoreAffinityMgr& affinity = CoreAffinityMgr::GetInstance();
    // Once it has been bound, what it makes belongs to its cores, too.
    if (app.isDelayed && !affinity.IsStored(app.pid, app.pid)) {
        return;
    }
    error.clear();
    if (affinity.SetCoreAffinity(tid, app.cores, error) != AFFINITY_OK) {
        ProcMgrSysLog(LOG_WARNING, "priority app SetCoreAffinityToOs failed, errinfo=%s, app=%s",
                      error.c_str(), app.name.c_str());
    }
}

}  // namespace ProcMgr
