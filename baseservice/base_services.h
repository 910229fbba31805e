// The base services that have been started: the list of their records, in start order, and its
// lock. Base start-up adds to it, the reaper stores exits in it, CheckThread moves its records from
// state to state and restarts what died, the request handlers set what services report about
// themselves. What is due to the message channel is done after the lock has been released.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "app/managed_records.h"
#include "app/owner_link.h"
#include "app/process_launcher.h"
#include "baseservice/reported_state.h"
#include "main/check_requests.h"
#include "message/request_msg.h"

namespace ProcMgr {

class BaseServices {
public:
    // All must outlive this object.
    BaseServices(App::ProcessLauncher& launcher, ReportedState& reportedState,
                 CheckRequests& checks, App::OwnerRegistry& owners,
                 const App::StateReports& reports);

    // Forks the record's program and adds a copy of the record. The lock is held from before the
    // fork until the record is in the list, so the reaper finds it however soon the child dies.
    // False, with a log line, when there is no process.
    bool Start(App::BaseAppInfo& record);

    // Reports a service that has just been started and, when it reports itself, opens its pipe.
    // True without either when supervision has dealt with its end already. False, with a log line,
    // when there is no pipe.
    bool Announce(const App::BaseAppInfo& record);

    // Whether every service of `depends` has been started and is alive. Logs what it finds.
    bool CheckDepends(const std::set<std::string>& depends, const std::string& name);

    // Nothing when the service is not in the list.
    std::optional<ProcessState> GetState(const std::string& name);

    // Stores the exit of the process `pid`; false when no service has it.
    bool SetExitStatus(int32_t pid, int32_t status);

    // One pass of CheckThread over all records: moves them from state to state, and deals with the
    // services that have died: reports, fault event, restart by their policy.
    void CheckBaseApps(CheckPass pass);

    // Takes the services that have ended for good out of the list, with their pipe and heartbeat.
    void RemoveTerminatedApps();

    // Watches the heartbeat of the service's present process. The caller has logged why.
    void RegisterHeartBeat(const std::string& name);

    // What a service says about itself: RUNNING or TERMINATING.
    void UpdateBaseAppState(const std::string& name, ProcessState reported);

    // Marks the service's present process as ready. True when it was not before; false, with a log
    // line, for a service that is not in the list.
    bool UpdateBaseServerReadyInfo(const std::string& name);
    bool IsReady(const std::string& name);

    // Names of the services that have a pipe, or are to have one, in start order.
    std::vector<std::string> GetOwners();

    // Shows every record to the visitor; see RecordContainer.
    bool Visit(const App::RecordVisitor& visitor);

    // Every service with its present state.
    std::vector<Message::AppStateInfo> GetStates();

    // The heartbeat library's word: `status` 1 lost, 0 back. Returns 1 when handled, else 0.
    int HeartBeatNotify(const char* name, size_t nameLength, int32_t pid, uint32_t status);

    // Ends every service, in reverse start order: SIGTERM, then SIGKILL when its term time-out has
    // passed. A service is not ended before those that depend on it are gone. Needs the reaper.
    void StopAll();

private:
    using Record = App::BaseAppInfo;

    // What is due to a service that has been told to end.
    struct Ending {
        SteadyTime due;  // the kill, or after it the end of all patience
        bool isKilled = false;
    };
    using Endings = std::map<std::string, Ending>;

    // The steps of a pass. Those with the lock take it themselves; the others wait for nobody's
    // lock, and may wait for an owner.
    std::vector<App::AppInfo> CheckStates(CheckPass pass);
    void GiveUp(const App::AppInfo& app) const;
    std::vector<App::AppInfo> RestartTerminated(const std::vector<App::AppInfo>& ended);
    void Reconnect(const App::AppInfo& app) const;

    // The callers of all that follow hold mutex_.
    // Whether a pass has something to find out about the record.
    bool NeedsCheck(const Record& record, CheckPass pass, SteadyTime now) const;
    Record* Find(const std::string& name);
    void CheckOne(Record& record);
    // The record's restart, decided and done. True when there is a new process.
    bool RestartByPolicy(Record& record);
    bool RestartBaseApp(const std::string& name);
    void RegisterHeartBeat(const Record& record);
    // Whether a service that is alive depends on `name`.
    bool IsNeeded(const std::string& name) const;
    void Terminate(const std::string& name, Endings& endings);
    // Waits for exits, and kills what is late, while `condition` is true.
    void WaitWhile(std::unique_lock<std::mutex>& lock, Endings& endings,
                   const std::function<bool()>& condition);
    // Does what is due; returns when the next thing is, nothing when all are gone or given up.
    std::optional<SteadyTime> KillLate(Endings& endings);

    App::ProcessLauncher& launcher_;
    ReportedState& reportedState_;
    CheckRequests& checks_;
    App::OwnerRegistry& owners_;
    const App::StateReports& reports_;
    // Held while starts and ends are reported and pipes opened and closed for them, so that what
    // came first is told first. Taken before mutex_; never in a callback of a pipe, which those who
    // hold it may wait for.
    std::mutex reportOrder_;
    std::mutex mutex_;
    std::condition_variable exited_;       // an exit has been stored
    std::vector<Record> executedBaseApp_;  // guarded by mutex_, its states also by reportedState_
    bool isStopping_ = false;              // StopAll has begun; guarded by mutex_
};

}  // namespace ProcMgr
