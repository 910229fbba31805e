// Turns a record into a running process, in two stages: Prepare() finds out everything that a start
// needs and may take long, Fork() makes the child. One for the daemon; any thread may launch.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/integrity.h"
#include "app/launch_plan.h"
#include "app/user_groups.h"
#include "main/common/clock.h"
#include "main/common/worker_pool.h"

namespace ProcMgr::App {

class AppInfo;
class BaseAppInfo;
class GeneralAppInfo;

class ProcessLauncher {
public:
    // `sharePool` must outlive this object; none: no process joins a group.
    explicit ProcessLauncher(SharePool* sharePool = nullptr) : sharePool_(sharePool) {}

    // Reads which executables are protected, by what digest. Once, before the first launch.
    void LoadIntegrityTable(const std::string& path) { integrity_.Load(path); }

    // Checks that the record's program may be started and computes the plan of its start. Nothing,
    // with a log line, when it may not. Waits for the user database, the program's file system and
    // the digest of a protected program: not with a lock held, so `app` is a copy of the record.
    std::optional<LaunchPlan> Prepare(const GeneralAppInfo& app);
    std::optional<LaunchPlan> Prepare(const BaseAppInfo& app);

    // Whether Prepare() would neither take a digest nor ask the user database.
    bool IsQuick(const AppInfo& app);

    // Starts a process by the plan and stores its pid in the record. Returns the pid, or -1, with a
    // log line, when there is no child, and throws nothing once there is one. What fails in the
    // child shows in its error text and its exit status. The caller holds the lock of the record's
    // container until the record can be found by pid there, so that the reaper cannot miss it.
    pid_t Fork(GeneralAppInfo& app, LaunchPlan& plan);
    pid_t Fork(BaseAppInfo& app, LaunchPlan& plan);

    // Gives back what is kept for the record's process. Called when its exit is stored, once and
    // while its pid cannot be another's yet.
    void Release(const AppInfo& app);

    // Runs a job that calls Prepare() on a thread of its own. Any lock may be held.
    // False when there is none for it.
    bool PostSlow(WorkerPool::Job job) { return slowJobs_.Post(std::move(job)); }

    // The reaper's: true when the pid is that of a helper process of Prepare().
    bool TakeHelperExit(int32_t pid) { return integrity_.TakeExit(pid); }

    // Refuses from now on what would take long, and ends what is under way.
    void CancelSlow() { integrity_.Cancel(); }
    // Waits for the jobs that run: false when some still do at `end`. After CancelSlow().
    bool Stop(SteadyTime end) { return slowJobs_.Stop(end); }

private:
    // The child of the record's plan; below 0, with errno, on failure.
    pid_t ForkChild(AppInfo& app, LaunchPlan& plan);
    void FinishPlan(const AppInfo& app,
                    const std::vector<std::pair<std::string, std::string>>& manifestGroups,
                    LaunchPlan& plan);
    void JoinSharePool(const AppInfo& app, const LaunchPlan& plan);

    // The checks before every start.
    bool PreStartCheck(const AppInfo& app);

    SharePool* const sharePool_;
    UserGroupsCache userGroups_;
    IntegrityTable integrity_;
    WorkerPool slowJobs_{"launch"};  // its jobs use all of the above
};

}  // namespace ProcMgr::App
