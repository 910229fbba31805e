// The container of the base services: the records of the services that have been started, in start
// order, and their lock. Base start-up adds records, the reaper stores exits, check passes
// move the records from state to state and restart services that have died, and the request
// handlers store the states that services report. Reports are queued under the lock, in the order
// of the changes; everything that may wait (the checks before a launch, the messaging and the
// heartbeat library) is done without the lock.
//
// While a record is being launched (isLaunching_) it belongs to the thread that launches it, until
// the new process has its pipe and its heartbeat watch. Supervision leaves the record alone in that
// time, and the record counts as undecided (IsUndecided): neither alive nor gone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/base_app_info.h"
#include "app/change_log.h"
#include "app/managed_records.h"
#include "app/owner_link.h"
#include "app/process_launcher.h"
#include "app/sensor_node_event_reporter.h"
#include "baseservice/base_records.h"
#include "baseservice/boot_plan.h"
#include "baseservice/owner_services.h"
#include "baseservice/reported_state.h"
#include "main/common/check_loop.h"
#include "main/common/check_requests.h"
#include "main/common/mutex.h"
#include "message/request_msg.h"

namespace ProcMgr {

class BaseServices final : public OwnerServices, public Supervised {
public:
    // All arguments must outlive this object.
    BaseServices(App::ProcessLauncher& launcher, ReportedState& reportedState,
                 CheckRequests& checks, App::OwnerRegistry& owners, App::StateReports& reports,
                 App::SensorNodeEventReporter& faults);

    // Starts the program of the record, adds a copy of the record and reports the start. The lock
    // is held from before the fork until the record is in the list, so the reaper finds the record
    // however early the child dies. False, with a log line, when there is no process. When the
    // function has returned true, isLaunching_ stays set until Announce() returns.
    bool Start(App::BaseAppInfo& record) PROCMGR_EXCLUDES(mutex_);

    // Completes the launch of a service after Start(): opens the pipe and starts the heartbeat
    // watch of a service that has promised to report, then leaves the record to supervision. False,
    // with a log line, when the pipe could not be opened.
    bool Announce(const App::BaseAppInfo& record) PROCMGR_EXCLUDES(mutex_);

    // True when the process of one of these services has ended and supervision has not yet decided
    // whether the service is restarted, or its restart is under way.
    bool IsAnyUndecided(const std::set<std::string>& names) PROCMGR_EXCLUDES(mutex_);

    // True when every service of `depends`, the dependencies of the service `name`, has been
    // started and is alive. Logs each check.
    bool CheckDepends(const std::set<std::string>& depends, const std::string& name)
        PROCMGR_EXCLUDES(mutex_);

    // Nothing when the service is not in the list. STARTING while the service is being restarted.
    std::optional<ProcessState> GetState(const std::string& name) PROCMGR_EXCLUDES(mutex_);

    // Stores the exit of the process `pid` with its wait status; false when no record has that
    // process. Called by the reaper before the pid is freed.
    bool SetExitStatus(int32_t pid, int32_t status) PROCMGR_EXCLUDES(mutex_);

    // One pass over the records to which something has happened: moves them
    // from state to state and handles the services that have died one after the other (report,
    // fault event, pipe, restart by policy). A restart is completed by Complete().
    void CheckBaseApps(CheckPass pass) PROCMGR_EXCLUDES(mutex_);
    void Check(CheckPass pass) override PROCMGR_EXCLUDES(mutex_) { CheckBaseApps(pass); }

    // Removes the services that have ended and are not restarted, with their pipes and heartbeat
    // watches. Called after each pass, by the thread that has made it.
    void RemoveTerminatedApps(CheckPass pass) override PROCMGR_EXCLUDES(mutex_);

    // Completes the restarts: opens the pipes of the new processes and starts their heartbeat
    // watches, on the check thread. Opening a pipe takes as long as creating a process, and
    // restarts go on meanwhile.
    void Complete() override PROCMGR_EXCLUDES(mutex_);

    // Stores the state that a service has reported, RUNNING or TERMINATING. Ignored when the
    // process of the service has ended; a log line when the service is not in the list.
    void UpdateBaseAppState(const std::string& name, ProcessState reported)
        PROCMGR_EXCLUDES(mutex_);

    // Marks the present process of the service as ready. True when it was alive and not marked
    // before; false, with a log line, for a service that is not in the list.
    bool UpdateBaseServerReadyInfo(const std::string& name) PROCMGR_EXCLUDES(mutex_);

    bool IsReady(const std::string& name) override PROCMGR_EXCLUDES(mutex_);
    std::vector<std::string> GetOwnersAmong(const std::vector<std::string>& names) override
        PROCMGR_EXCLUDES(mutex_);

    // Shows the records that the visitor asks for; see App::RecordContainer.
    bool Visit(const App::RecordVisitor& visitor) PROCMGR_EXCLUDES(mutex_);

    // Every service with its present state, in start order.
    std::vector<Message::AppStateInfo> GetStates() PROCMGR_EXCLUDES(mutex_);

    // Handles a notification of the heartbeat library, on a thread of that library. `status` 1: the
    // heartbeat of the process `pid` is lost, 0: it has come back. Returns 1 when the notification
    // was handled, else 0, with a log line.
    int HeartBeatNotify(const char* name, size_t nameLength, int32_t pid, uint32_t status)
        PROCMGR_EXCLUDES(mutex_);

    // Switches the histories on, which the status endpoint shows. Called before there are other
    // threads; `log` must outlive this object. All further functions for the status endpoint do
    // nothing for services that are not in the plan.
    void KeepHistories(App::ChangeLog& log) { changeLog_ = &log; }
    // Null while the histories are off.
    App::ChangeLog* GetChangeLog() const { return changeLog_; }
    // The calls of start-up. The base file is refused, for this reason; empty: see the log.
    void NoteConfigError(const std::string& reason) PROCMGR_EXCLUDES(mutex_);
    // The plan has every service of the base file.
    void SetPlan(BootPlan plan) PROCMGR_EXCLUDES(mutex_);
    // The history for the record of a service; null without one.
    std::shared_ptr<App::AppHistory> GetHistory(const std::string& name) PROCMGR_EXCLUDES(mutex_);
    // It is the turn of the service, and all services that it depends on run.
    void NoteReleased(const std::string& name) PROCMGR_EXCLUDES(mutex_);
    // The service is not started, because one that it depends on does not run.
    void NoteBlocked(const std::string& name) PROCMGR_EXCLUDES(mutex_);
    // These services wait for each other: it will never be their turn.
    void NoteCycles(const std::set<std::string>& names) PROCMGR_EXCLUDES(mutex_);
    // The services that still wait are not started any more.
    void NoteStartUpEnd() PROCMGR_EXCLUDES(mutex_);
    // Every service of the plan, in the order of the file. Holds the lock for 128 services at a
    // time.
    std::vector<ServiceView> GetViews() PROCMGR_EXCLUDES(mutex_);
    // Why the base file was refused; empty when it was not.
    std::string GetConfigError() PROCMGR_EXCLUDES(mutex_);

    // From this call on nothing is started or restarted.
    void BeginStop() PROCMGR_EXCLUDES(mutex_);

    // Ends every service in reverse start order: SIGTERM, then SIGKILL when the service's
    // termination time-out has passed. A service gets its SIGTERM only after the services that
    // depend on it have ended. Implies BeginStop(). Returns when all have ended or have been given
    // up; the reaper must run meanwhile, because it stores the exits.
    void StopAll() PROCMGR_EXCLUDES(mutex_);

private:
    using Record = App::BaseAppInfo;
    class LaunchGuard;
    class StartFault;

    // What a pass has to know of a service whose end it has just found.
    struct Ended {
        std::string name;
        uint32_t nodeType = 0;
        bool isReporting = false;
        bool hasDied = false;  // else its end was requested
    };
    // A service that has a new process.
    struct Restarted {
        Record* record = nullptr;
        bool hasFault = false;  // the fault of its death has not been raised
    };
    // The services that StopAll() has sent SIGTERM.
    struct Endings {
        std::multimap<SteadyTime, std::string> byKillTime;  // not killed yet
        std::vector<std::string> killed;
        // How much longer StopAll() waits for processes that it has killed, all together.
        std::chrono::nanoseconds killPatience = std::chrono::milliseconds(500);
    };

    // The steps of a pass and of a restart. They hold the lock for one record at a time.
    //
    // The records that the pass has to look at, in start order. They stay valid to the end of the
    // pass: records that have ever been marked are removed only after a pass.
    std::vector<Record*> BeginPass(CheckPass pass) PROCMGR_EXCLUDES(mutex_);
    // Checks the records of `due` from `index` on, up to and with the first one that has ended.
    // Nothing when the list has been checked to its end.
    std::optional<Ended> CheckNext(CheckPass pass, const std::vector<Record*>& due, size_t& index)
        PROCMGR_EXCLUDES(mutex_);
    void ReleaseEnded(const Ended& ended) PROCMGR_EXCLUDES(mutex_);
    // Restarts a service that has died if its policy allows it. A launch that may take long is
    // handed to another thread. `guard` is disarmed when that thread or Complete() is to end the
    // launch.
    void RestartByPolicy(const std::string& name, LaunchGuard& guard, StartFault& fault)
        PROCMGR_EXCLUDES(mutex_);
    // Decides about the restart and logs the decision. Returns a copy of the record when the
    // service is to be restarted.
    std::optional<Record> DecideRestart(const std::string& name) PROCMGR_EXCLUDES(mutex_);
    // Starts the new process and leaves the fault and the end of the launch to Complete(): `guard`
    // is disarmed. Logs when there is no new process.
    void PrepareAndRestart(const Record& copy, LaunchGuard& guard, StartFault& fault)
        PROCMGR_EXCLUDES(mutex_);
    std::vector<Restarted> TakeRestarted() PROCMGR_EXCLUDES(mutex_);
    // Raises the fault of the death before the restart if it has not been raised, and withdraws it
    // when the service does not report that it runs.
    void ShowRestart(const Record& record, bool hasFault);
    Record CopyOf(const Record& record) PROCMGR_EXCLUDES(mutex_);
    void Reconnect(const Record& record) PROCMGR_EXCLUDES(mutex_);
    // Ends the launch of the record: supervision checks the record again.
    void EndLaunch(const std::string& name) PROCMGR_EXCLUDES(mutex_);
    void RegisterHeartBeat(const Record& record) PROCMGR_EXCLUDES(mutex_);
    // Ends the heartbeat watch of the service and the fault that the watch may have raised.
    void EndHeartBeat(const std::string& name) PROCMGR_EXCLUDES(mutex_);
    bool StartInList(Record& record, App::LaunchPlan& plan) PROCMGR_EXCLUDES(mutex_);

    // These queue a call of the device library and take no lock of this object.
    void RaiseFault(const Record& record, int32_t event);
    void WithdrawFault(const std::string& name, int32_t event);

    bool NeedsCheck(const Record& record, CheckPass pass, SteadyTime now) const
        PROCMGR_REQUIRES(mutex_);
    // Removes the records of RemoveTerminatedApps() and returns their names. A periodic pass then
    // takes the mark from those that the next one need not look at.
    std::vector<std::string> RemoveFromList(CheckPass pass) PROCMGR_EXCLUDES(mutex_);
    static bool IsRemovable(const Record& record);
    bool IsUndecided(const std::string& name) PROCMGR_REQUIRES(mutex_);
    // Forks the process of a record that is in the list, and adds it to the live processes.
    bool StartProcess(Record& record, App::LaunchPlan& plan) PROCMGR_REQUIRES(mutex_);
    // Starts a new process, by `plan`, for a service whose process has ended, and adds the record
    // to restarted_. False, with a log line, when there is no new process.
    bool RestartBaseApp(const std::string& name, std::optional<App::LaunchPlan> plan,
                        StartFault& fault) PROCMGR_REQUIRES(mutex_);
    void CheckOne(Record& record) PROCMGR_REQUIRES(mutex_);
    // Queues the report about a record whose process has just been found ended.
    void ReportEnd(Record& record) PROCMGR_REQUIRES(mutex_);
    void CountDependents() PROCMGR_REQUIRES(mutex_);
    // Called when the exit of the service's process has been stored.
    void ForgetDependent(const Record& record) PROCMGR_REQUIRES(mutex_);
    // True when a service that is alive depends on `name`.
    bool IsNeeded(const std::string& name) const PROCMGR_REQUIRES(mutex_);
    void FillView(const BootPlan::Entry& entry, ServiceView& view) PROCMGR_REQUIRES(mutex_);
    void Terminate(const std::string& name, Endings& endings) PROCMGR_REQUIRES(mutex_);
    // Waits for exits and kills the processes whose time-out has passed, until `condition` is false
    // or no process is left to wait for. `lock` holds mutex_.
    void WaitWhile(UniqueLock& lock, Endings& endings, const std::function<bool()>& condition)
        PROCMGR_REQUIRES(mutex_);
    // Kills the processes whose time-out has passed. Returns the time of the next kill or of giving
    // up; nothing when every process has ended or been given up.
    std::optional<SteadyTime> KillLate(Endings& endings) PROCMGR_REQUIRES(mutex_);
    // Forgets killed services that have ended, and gives up the others when the patience is over.
    void DropKilled(Endings& endings) PROCMGR_REQUIRES(mutex_);

    App::ProcessLauncher& launcher_;
    ReportedState& reportedState_;
    CheckRequests& checks_;
    App::OwnerRegistry& owners_;
    App::StateReports& reports_;
    App::SensorNodeEventReporter& faults_;
    App::ChangeLog* changeLog_ = nullptr;  // constant once there are other threads

    Mutex mutex_;
    Condition exited_;  // notified when an exit has been stored
    BaseRecords executedBaseApp_ PROCMGR_GUARDED_BY(mutex_);
    // The restarted services that Complete() has to look at. isLaunching_ is set in each until
    // Complete() ends its launch, so none is removed before.
    std::vector<Restarted> restarted_ PROCMGR_GUARDED_BY(mutex_);
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;
    BootPlan plan_ PROCMGR_GUARDED_BY(mutex_);
    std::string configError_ PROCMGR_GUARDED_BY(mutex_);
    // Of StopAll(): how many live services depend on the service of that name.
    std::map<std::string, size_t> liveDependents_ PROCMGR_GUARDED_BY(mutex_);
};

}  // namespace ProcMgr
