// Turns a record into a running process, in two stages: Prepare() does every check and look-up that
// may take long, Fork() creates the child. The daemon has one launcher; the containers of the
// records call it, from any thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/child_slots.h"
#include "app/integrity.h"
#include "app/launch_plan.h"
#include "app/start_refusal.h"
#include "app/user_groups.h"
#include "main/common/clock.h"
#include "main/common/worker_pool.h"
#include "output/output_relay.h"
#include "resource/bind_count.h"

namespace ProcMgr::App {

class AppInfo;
class BaseAppInfo;
class GeneralAppInfo;
struct ChildContext;

class ProcessLauncher {
public:
    // All arguments must outlive this object. Without `sharePool`, no process joins a share-pool
    // group; without `output`, every process has the standard output and error of the daemon.
    ProcessLauncher(const CgroupMgr& cgroups, CoreAffinityMgr& affinity, const BindCount& binds,
                    SharePool* sharePool = nullptr, Output::OutputRelay* output = nullptr)
        : cgroups_(cgroups),
          affinity_(affinity),
          binds_(binds),
          sharePool_(sharePool),
          output_(output) {}

    // Reads the expected digests of the protected executables. Called once, before the first
    // launch.
    void LoadIntegrityTable(const std::string& path) { integrity_.Load(path); }

    // Begins what the first launches would wait for, on a thread of the pool: the slots of the
    // children, and the first look-up in the user database, for which the C library loads modules.
    // A failure is left to the first launch.
    void WarmUp();

    // Checks that the record's program may be started and computes the plan of the start. Returns
    // nothing, with a log line, when a check refuses the start. Waits for the user database, the
    // program's file system and the digest of a protected program: the caller holds no lock and
    // passes a copy of the record.
    std::optional<LaunchPlan> Prepare(const GeneralAppInfo& app);
    std::optional<LaunchPlan> Prepare(const BaseAppInfo& app);

    // Whether Prepare() would neither take a digest nor ask the user database.
    bool IsQuick(const AppInfo& app);

    // Creates the child and stores its pid in the record; uses up the plan. Returns the pid, or -1,
    // with a log line, when there is no child. Throws nothing once there is a child. Does not wait
    // for the child, which may not have executed its program yet. Failures in the child appear only
    // in its error text, its exit status and, while the status endpoint is on, its fault note. The
    // caller holds the lock of the record's container until the container can find the record by
    // the pid, so that the reaper finds it, too.
    pid_t Fork(GeneralAppInfo& app, LaunchPlan& plan);
    pid_t Fork(BaseAppInfo& app, LaunchPlan& plan);

    // Drops what resource control remembers of the record's process. Called once for each process,
    // when its exit is stored and its pid cannot belong to another process yet.
    void Release(const AppInfo& app);

    // Runs a job that calls Prepare() on a thread of the pool. False when no thread can take it.
    // The caller may hold any lock.
    bool PostSlow(WorkerPool::Job job) { return slowJobs_.Post(std::move(job)); }

    // Called by the reaper: true when the pid is that of a digest command of Prepare().
    bool TakeHelperExit(int32_t pid) { return integrity_.TakeExit(pid); }

    // Ends the digests that are being taken and refuses later ones.
    void CancelSlow() { integrity_.Cancel(); }
    // Waits for the jobs of PostSlow() and WarmUp() that run. False when one still runs at `end`.
    // Called after CancelSlow().
    bool Stop(SteadyTime end) { return slowJobs_.Stop(end); }

private:
    // Creates the child; below 0, with errno, on failure.
    pid_t CreateChild(AppInfo& app, const std::shared_ptr<ChildContext>& context,
                      ChildSlots::Lease slot, Output::OutputTarget output);
    void FinishPlan(const AppInfo& app,
                    const std::vector<std::pair<std::string, std::string>>& manifestGroups,
                    LaunchPlan& plan);
    void JoinSharePool(const AppInfo& app, const LaunchPlan& plan);
    bool PreStartCheck(const AppInfo& app);
    StartRefusal FindRefusal(const AppInfo& app);

    const CgroupMgr& cgroups_;
    CoreAffinityMgr& affinity_;
    const BindCount& binds_;
    SharePool* const sharePool_;
    Output::OutputRelay* const output_;
    UserGroupsCache userGroups_;
    IntegrityTable integrity_;
    ChildSlots slots_{ZornNeedsOwnMemory() ? 0 : ChildSlots::DefaultCount()};
    // The jobs use all of the above: the pool is destroyed first.
    WorkerPool slowJobs_{"launch"};
};

}  // namespace ProcMgr::App
