// The base services that have been started: the list of their records, in start order, and its
// lock. Base start-up adds to it, the reaper stores exits in it, CheckThread moves its records from
// state to state and restarts what died, the request handlers set what services report about
// themselves. Reports are queued under the lock, in the order of the changes; whatever may have to
// wait (a launch's checks, the messaging and the heartbeat library) is done without it.
//
// A record that is being launched (isLaunching_) belongs to the thread that launches it, until its
// process has its pipe and its heartbeat watch: supervision leaves it alone meanwhile, and whoever
// looks at it finds it neither alive nor gone (IsUndecided).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/base_app_info.h"
#include "app/managed_records.h"
#include "app/owner_link.h"
#include "app/process_launcher.h"
#include "baseservice/reported_state.h"
#include "main/common/check_requests.h"
#include "main/common/mutex.h"
#include "message/request_msg.h"

namespace ProcMgr {

class BaseServices {
public:
    // All must outlive this object.
    BaseServices(App::ProcessLauncher& launcher, ReportedState& reportedState,
                 CheckRequests& checks, App::OwnerRegistry& owners, App::StateReports& reports);

    // Starts the record's program, adds a copy of the record and reports the start. The lock is
    // held from before the fork until the record can be found, so the reaper finds it however soon
    // the child dies. False, with a log line, when there is no process. The record is being
    // launched until Announce().
    bool Start(App::BaseAppInfo& record);

    // Opens the pipe of a service that has just been started and watches its heartbeat, when it
    // reports itself; supervision takes over. False, with a log line, when there is no pipe.
    bool Announce(const App::BaseAppInfo& record);

    // Whether it is still open what becomes of one of these services: its process has ended, and
    // supervision has not dealt with that.
    bool IsAnyUndecided(const std::set<std::string>& names);

    // Whether every service of `depends` has been started and is alive. Logs what it finds.
    bool CheckDepends(const std::set<std::string>& depends, const std::string& name);

    // Nothing when the service is not in the list. STARTING while it is being launched again.
    std::optional<ProcessState> GetState(const std::string& name);

    // Stores the exit of the process `pid`; false when no service has it.
    bool SetExitStatus(int32_t pid, int32_t status);

    // One pass of CheckThread over all records: moves them from state to state, and deals with the
    // services that have died, one after the other: report, fault event, pipe, restart by their
    // policy.
    void CheckBaseApps(CheckPass pass);

    // Takes the services that have ended for good out of the list, with their pipe and heartbeat.
    void RemoveTerminatedApps();

    // What a service says about itself: RUNNING or TERMINATING.
    void UpdateBaseAppState(const std::string& name, ProcessState reported);

    // Marks the service's present process as ready. True when it was not before; false, with a log
    // line, for a service that is not in the list.
    bool UpdateBaseServerReadyInfo(const std::string& name);
    // Whether its present process is alive and has said that it is ready.
    bool IsReady(const std::string& name);

    // Names of the services that have a pipe, or are to have one, in start order.
    std::vector<std::string> GetOwners();

    // Shows every record to the visitor; see RecordContainer.
    bool Visit(const App::RecordVisitor& visitor);

    // Every service with its present state.
    std::vector<Message::AppStateInfo> GetStates();

    // A notification of the heartbeat library: `status` 1 lost, 0 back. Returns 1 when handled,
    // else 0.
    int HeartBeatNotify(const char* name, size_t nameLength, int32_t pid, uint32_t status);

    // From now on nothing is started or restarted.
    void BeginStop();

    // Begins the stop, if that has not been done, and ends every service, in reverse start order:
    // SIGTERM, then SIGKILL when its term time-out has passed. A service is not ended before those
    // that depend on it are gone. Needs the reaper.
    void StopAll();

private:
    using Record = App::BaseAppInfo;
    class LaunchGuard;

    // What is due to a service that has been told to end.
    struct Ending {
        SteadyTime due;  // the kill
        bool isKilled = false;
    };
    using Endings = std::map<std::string, Ending>;

    // The parts of a pass and of a restart; they take the lock themselves. Each works on a copy of
    // the record that the list had under the lock.
    // Checks the records from `index` on, up to the first that has ended; nothing when none has.
    std::optional<Record> CheckNext(CheckPass pass, size_t& index);
    void GiveUp(const Record& record);
    // Decides about the restart of a service that has died, and does it.
    void RestartByPolicy(const std::string& name, LaunchGuard& guard);
    std::optional<Record> DecideRestart(const std::string& name);
    void PrepareAndFinish(const Record& copy);
    void Reconnect(const Record& record);
    // Gives a record that was being launched to supervision.
    void EndLaunch(const std::string& name);
    void RegisterHeartBeat(const Record& record);
    // The part of Start() that is done under the lock.
    bool StartInList(Record& record, App::LaunchPlan& plan);
    void WarnNotStarted(const Record& record) const;

    // The callers of all that follow hold mutex_.
    // Whether a pass has something to find out about the record.
    bool NeedsCheck(const Record& record, CheckPass pass, SteadyTime now) const;
    Record* Find(const std::string& name);
    // Starts a terminated service again. False, with a log line, when there is no new process.
    bool RestartBaseApp(const std::string& name, std::optional<App::LaunchPlan> plan);
    void CheckOne(Record& record);
    // What is due at once to a record whose process has ended.
    void NoteEnd(Record& record);
    // Whether a service that is alive depends on `name`.
    bool IsNeeded(const std::string& name) const;
    void Terminate(const std::string& name, Endings& endings);
    // Waits for exits, and kills what is late, while `condition` is true.
    void WaitWhile(UniqueLock& lock, Endings& endings, const std::function<bool()>& condition);
    // Does what is due; returns when the next thing is, nothing when all are gone or given up.
    std::optional<SteadyTime> KillLate(Endings& endings);

    App::ProcessLauncher& launcher_;
    ReportedState& reportedState_;
    CheckRequests& checks_;
    App::OwnerRegistry& owners_;
    App::StateReports& reports_;
    Mutex mutex_;
    Condition exited_;                     // an exit has been stored
    std::vector<Record> executedBaseApp_;  // guarded by mutex_, its states also by reportedState_
    bool isStopping_ = false;              // guarded by mutex_
    // How long killed processes may still be waited for, all together; guarded by mutex_.
    std::chrono::nanoseconds killPatience_ = std::chrono::milliseconds(500);
};

}  // namespace ProcMgr
