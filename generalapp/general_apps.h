// The applications that owners ask for: the map of their records, and its lock. Request handlers
// start, stop, restart and query them, the reaper stores their exits, CheckThread moves them from
// state to state. Reports are queued under the lock, in the order of the changes, and sent after
// it.
//
// A launch has two parts: what may have to wait is prepared without the lock, on a copy of the
// record, and the fork is made under it. In between the record is being launched (isLaunching_):
// it is in the map, and neither supervision nor another request touches it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/general_app_info.h"
#include "app/managed_records.h"
#include "app/owner_link.h"
#include "app/process_launcher.h"
#include "generalapp/startup_config.h"
#include "main/common/check_requests.h"
#include "main/common/mutex.h"
#include "message/request_msg.h"

namespace ProcMgr {

// What general applications need to know of the base services. Both take the base-service lock,
// which comes after that of the general applications.
struct OwnerView {
    std::function<bool()> isZornReady;
    // The owner services, in start order.
    std::function<std::vector<std::string>()> getOwners;
};

class GeneralApps {
public:
    // All must outlive this object.
    GeneralApps(App::ProcessLauncher& launcher, CheckRequests& checks, App::StateReports& reports,
                const StartupConfig& config, OwnerView view);

    // The requests of `owner`. Each item is handled under its own hold of the lock; what is to be
    // reported at once is sent at the end.
    void StartApp(const std::vector<Message::StartAppInfo>& items, const std::string& owner);
    void TermGeneralApp(const std::vector<Message::TermAppInfo>& items, const std::string& owner);
    void RestartApp(const std::vector<Message::RestartAppInfo>& items, const std::string& owner);
    void QueryAppState(const std::vector<std::string>& names, const std::string& owner);

    // Starts the priority applications of a file, or all that are known, in their order, as far as
    // they have no process.
    void StartPriorityApps(const std::string& path = {});

    // Stores the exit of the process `pid`; false when no application has it.
    bool SetExitStatus(int32_t pid, int32_t status);

    // One pass of CheckThread: moves the records from state to state and reports the changes.
    void CheckGeneralApps(CheckPass pass);
    void RemoveTerminatedApps();

    // Reports what could not be told to the access manager while it was not ready.
    void ReportHeldBack();

    // Shows every record to the visitor; see RecordContainer.
    bool Visit(const App::RecordVisitor& visitor);

    // Every application with its present state; with an `owner` those that it is told of.
    std::vector<Message::AppStateInfo> GetStates(const std::string& owner = {});

    // Ends every application: SIGTERM, then SIGKILL when its term time-out has passed. Starts
    // nothing any more. Needs the reaper and CheckThread.
    void StopAll();

private:
    using Record = std::shared_ptr<App::GeneralAppInfo>;
    struct Change {
        std::string owner;  // who is told, besides the access manager
        Message::AppStateInfo item;
        std::string appOwner;  // the owner of the application
        // Of an answer: the record, and its changes when the answer was made.
        Record record;
        uint64_t seen = 0;
        bool isForZorn = true;
    };
    // In the order in which they came about.
    using ChangeList = std::vector<Change>;
    // A start that has been decided: the record and, for its preparation, a copy.
    struct Launch {
        Record record;
        App::GeneralAppInfo copy;
    };

    // Prepares a launch; nothing, with a log line, when the program may not be started. Takes no
    // lock.
    std::optional<App::LaunchPlan> Prepare(const App::GeneralAppInfo& copy);
    // The parts of a pass; each takes the lock itself.
    std::vector<App::GeneralAppInfo> CheckStates(CheckPass pass);
    void BeginRestartEnded(const App::GeneralAppInfo& copy);
    void RestartEnded(const App::GeneralAppInfo& copy);
    void FinishRestartEnded(const std::string& name, std::optional<App::LaunchPlan> plan);
    // Queues and sends the answers of a request, as far as they are still true. Takes the lock.
    void ReportPending(const ChangeList& pending);

    // The callers of all that follow hold mutex_.
    void ReportGeneralAppChanges(const ChangeList& changes, bool isAnswer);
    void ReportInOrder(const std::vector<Message::AppStateInfo>& items, const std::string& owner,
                       bool isAnswer);
    void QueueHeldBack();
    // Queues what is in outbox_.
    void QueueOutbox();
    static void Answer(ChangeList& pending, const std::string& owner, const Record& record,
                       ReportAppStateType reportType);
    static void Answer(ChangeList& pending, const std::string& owner, const std::string& name,
                       ReportAppStateType reportType);
    // The record in the map, or one made from what is known; null, with a log line, for neither.
    Record GetGeneralApp(const std::string& name, const std::string& owner);
    void UpdateAllGeneralAppMap();
    Record Find(const std::string& name) const;
    bool IsInMap(const Record& record) const;
    // One item of a request. A launch is left to the caller. BeginStart returns false when the rest
    // of the request is to be dropped.
    bool BeginStart(const Message::StartAppInfo& item, const std::string& owner,
                    ChangeList& pending, std::optional<Launch>& launch);
    void FinishStart(const Record& record, std::optional<App::LaunchPlan> plan,
                     const std::string& owner, ChangeList& pending);
    void Terminate(const std::string& name, const std::string& owner, ChangeList& pending);
    std::optional<Launch> BeginRestart(const Message::RestartAppInfo& item,
                                       const std::string& owner, ChangeList& pending);
    void FinishDirectRestart(const Record& record, std::optional<App::LaunchPlan> plan,
                             const std::string& owner, ChangeList& pending);
    void RestartRunning(const Record& record, App::AppSpec next);
    std::optional<Launch> HandlePriorityApps(const Record& record, App::AppSpec spec,
                                             const std::string& owner, ChangeList& pending);
    // Gives the record what it is started by, and puts it into the map before there is a process
    // that could be lost.
    Launch BeginLaunch(const Record& record, App::AppSpec spec, const std::string& owner);
    // Forks; a record that has never had a process leaves the map again when there is none.
    bool FinishLaunch(const Record& record, std::optional<App::LaunchPlan> plan);
    bool TryStart(App::GeneralAppInfo& app, std::optional<App::LaunchPlan> plan);
    static uint32_t Probe(const App::GeneralAppInfo& app);
    void CheckOne(App::GeneralAppInfo& app, SteadyTime now);
    // What is due about the change that the record's report type tells of.
    void NoteChange(App::GeneralAppInfo& app);
    static bool IsOutdated(const Change& change);
    // Keeps what the access manager is to be told once it is ready.
    void HoldBack(const Message::AppStateInfo& item);
    bool HasLive() const;
    void KillAll();

    App::ProcessLauncher& launcher_;
    CheckRequests& checks_;
    App::StateReports& reports_;
    const StartupConfig& config_;
    const OwnerView view_;

    Mutex mutex_;
    Condition exited_;  // an exit has been stored
    // All guarded by mutex_.
    std::map<std::string, Record> generalAppMap_;
    // Changes that are not queued yet. They stay until they are: the records do not tell of them
    // again.
    ChangeList outbox_;
    std::vector<Message::AppStateInfo> heldBack_;
    uint64_t seenRevision_ = 0;  // of the configuration that the records know
    bool isStopping_ = false;
};

}  // namespace ProcMgr
