// Turns a record into a running process: plan, fork, child set-up, execv. One for the daemon; any
// thread may launch.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>

#include "app/app_info.h"
#include "app/integrity.h"
#include "app/launch_plan.h"
#include "app/user_groups.h"

namespace ProcMgr::App {

class ProcessLauncher {
public:
    // `sharePool` must outlive this object; none: no process joins a group.
    explicit ProcessLauncher(SharePool* sharePool = nullptr) : sharePool_(sharePool) {}

    // Reads which executables are protected, by what digest. Once, before the first launch.
    void LoadIntegrityTable(const std::string& path) { integrity_.Load(path); }

    // Checks that the record's program may be started, starts it, and stores the child's pid in the
    // record. Returns the pid, or -1, with a log line, when there is no child, and throws nothing
    // once there is one. What fails in the child shows in its error text and its exit status. The
    // caller holds the lock of the record's container until the record can be found by pid there,
    // so that the reaper cannot miss it.
    pid_t Launch(GeneralAppInfo& app);
    pid_t Launch(BaseAppInfo& app);

    // Gives back what is kept for the record's process. Called when its exit is stored, once and
    // while its pid cannot be another's yet.
    void Release(const AppInfo& app);

    // Looks the user's groups up ahead of a launch. The user database may be slow: call it before
    // taking the lock of the record's container.
    void LookUpUser(uint32_t uid);

private:
    // The child of the record's plan; below 0, with errno, on failure.
    pid_t ForkChild(AppInfo& app, LaunchPlan& plan);
    void PlanSharePool(const std::string& name,
                       const std::vector<std::pair<std::string, std::string>>& manifestGroups,
                       LaunchPlan& plan) const;
    void JoinSharePool(const AppInfo& app, const LaunchPlan& plan);

    // The checks before every fork. Runs an external program when the executable is protected.
    bool PreStartCheck(const AppInfo& app);

    // Forks with every signal blocked and the log's lock held: no handler of the daemon's runs in
    // the child and no other thread owns a lock that the child needs.
    static pid_t Fork(const LaunchPlan& plan);

    SharePool* const sharePool_;
    // Held over everything that uses the user database or the environment, and over the fork.
    std::mutex launchMutex_;
    UserGroupsCache userGroups_;  // guarded by launchMutex_
    IntegrityTable integrity_;    // constant once it is loaded
};

}  // namespace ProcMgr::App
