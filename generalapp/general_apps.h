// The container of the general applications, which owner services request: the map of their records
// and its lock. Request handlers start, terminate, restart and query applications, the reaper
// stores exits, and check passes move the records from state to state. Reports are queued
// under the lock, in the order of the changes, and sent without it.
//
// A launch has two stages: the checks that may take long are done without the lock, on a copy of
// the record, and the fork is done under it. Between the two the record is in the map and marked as
// being launched (isLaunching_); supervision and other requests leave it alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/app_view.h"
#include "app/change_log.h"
#include "app/general_app_info.h"
#include "app/history_table.h"
#include "app/managed_records.h"
#include "app/owner_link.h"
#include "app/process_launcher.h"
#include "app/record_index.h"
#include "app/sensor_node_event_reporter.h"
#include "baseservice/owner_services.h"
#include "baseservice/readiness.h"
#include "generalapp/change_reports.h"
#include "generalapp/startup_config.h"
#include "main/common/check_loop.h"
#include "main/common/check_requests.h"
#include "main/common/mutex.h"
#include "message/request_msg.h"

namespace ProcMgr {

class GeneralApps final : public Supervised, public HeldBackReports {
public:
    // All arguments must outlive this object.
    GeneralApps(App::ProcessLauncher& launcher, CheckRequests& checks, App::StateReports& reports,
                App::SensorNodeEventReporter& faults, const StartupConfig& config,
                OwnerServices& owners);

    // The requests of `owner`. The lock is held for one item at a time; the answers are sent after
    // the last item. When an item of a start request names an application that has no record and no
    // configuration, the request ends at that item and none of its answers is sent; applications
    // that earlier items have started keep running.
    void StartApp(const std::vector<Message::StartAppInfo>& items, const std::string& owner)
        PROCMGR_EXCLUDES(mutex_);
    void TermGeneralApp(const std::vector<Message::TermAppInfo>& items, const std::string& owner)
        PROCMGR_EXCLUDES(mutex_);
    void RestartApp(const std::vector<Message::RestartAppInfo>& items, const std::string& owner)
        PROCMGR_EXCLUDES(mutex_);
    void QueryAppState(const std::vector<std::string>& names, const std::string& owner)
        PROCMGR_EXCLUDES(mutex_);

    // Starts the priority applications of the configuration file at `path`, or of every loaded file
    // when `path` is empty, in the order of their priorities. Applications with a record are left
    // out.
    void StartPriorityApps(const std::string& path = {}) PROCMGR_EXCLUDES(mutex_);

    // Stores the exit of the process `pid` with its wait status; false when no record has that
    // process. Called by the reaper before the pid is freed.
    bool SetExitStatus(int32_t pid, int32_t status) PROCMGR_EXCLUDES(mutex_);

    // One pass: moves the records from state to state, reports the changes, and
    // starts the new processes of restarts whose old process has ended.
    void CheckGeneralApps(CheckPass pass) PROCMGR_EXCLUDES(mutex_);
    void Check(CheckPass pass) override PROCMGR_EXCLUDES(mutex_) { CheckGeneralApps(pass); }
    // Removes the records of applications that have ended. Called after each pass, by the thread
    // that has made it.
    void RemoveTerminatedApps(CheckPass pass) override PROCMGR_EXCLUDES(mutex_);

    // Reports the changes that were held back while the access manager was not ready.
    void ReportHeldBack() override PROCMGR_EXCLUDES(mutex_);

    // Shows the records that the visitor asks for; see App::RecordContainer.
    bool Visit(const App::RecordVisitor& visitor) PROCMGR_EXCLUDES(mutex_);

    // Every application with its present state; with an `owner` only those whose changes are
    // reported to that owner.
    std::vector<Message::AppStateInfo> GetStates(const std::string& owner = {})
        PROCMGR_EXCLUDES(mutex_);

    // Switches the histories on, which the status endpoint shows. Called before there are other
    // threads; `log` must outlive this object.
    void KeepHistories(App::ChangeLog& log) PROCMGR_EXCLUDES(mutex_);
    // While they are on: every application with a record or a history, and 1024 at most that have
    // never been started, by name. Holds the lock for 64 of them at a time.
    std::vector<App::AppView> GetViews() PROCMGR_EXCLUDES(mutex_);

    // Ends every application: SIGTERM, then SIGKILL when its termination time-out has passed. From
    // this call on nothing is started. Returns when all have ended or have been given up; the
    // reaper and the check thread must run meanwhile, because they store the exits and send
    // SIGKILL.
    void StopAll() PROCMGR_EXCLUDES(mutex_);

private:
    using Record = std::shared_ptr<App::GeneralAppInfo>;
    // A launch between its two stages: the record, and the copy for the first stage.
    struct Launch {
        Record record;
        App::GeneralAppInfo copy;
    };

    // The first stage of a launch; nothing, with a log line, when the program may not be started.
    std::optional<App::LaunchPlan> Prepare(const App::GeneralAppInfo& copy)
        PROCMGR_EXCLUDES(mutex_);
    // Checks the records. Returns copies of those whose restart is due.
    std::vector<App::GeneralAppInfo> CheckStates(CheckPass pass) PROCMGR_EXCLUDES(mutex_);
    // Start the new process of a restart whose old process has ended: BeginRestartEnded() marks the
    // record and selects the thread, RestartEnded() prepares, FinishRestartEnded() forks under the
    // lock.
    void BeginRestartEnded(const App::GeneralAppInfo& copy) PROCMGR_EXCLUDES(mutex_);
    void RestartEnded(const App::GeneralAppInfo& copy) PROCMGR_EXCLUDES(mutex_);
    void FinishRestartEnded(const std::string& name, std::optional<App::LaunchPlan> plan)
        PROCMGR_EXCLUDES(mutex_);
    void SendAnswers(const Answers& answers) PROCMGR_EXCLUDES(mutex_);

    // The record in the map, or a new one from the configuration, which is not in the map yet;
    // null, with a log line, when the name is unknown.
    Record GetGeneralApp(const std::string& name, const std::string& owner)
        PROCMGR_REQUIRES(mutex_);
    // Passes a changed configuration on to the records in the map.
    void UpdateAllGeneralAppMap() PROCMGR_REQUIRES(mutex_);
    Record Find(const std::string& name) const PROCMGR_REQUIRES(mutex_);
    bool IsInMap(const Record& record) const PROCMGR_REQUIRES(mutex_);
    // Each handles one item of a request. When a launch is returned, the caller calls Prepare()
    // without the lock and then the Finish function of the request.
    std::optional<Launch> BeginStart(const Record& record, const Message::StartAppInfo& item,
                                     Answers& answers) PROCMGR_REQUIRES(mutex_);
    void FinishStart(const Record& record, std::optional<App::LaunchPlan> plan, Answers& answers)
        PROCMGR_REQUIRES(mutex_);
    void Terminate(const std::string& name, Answers& answers) PROCMGR_REQUIRES(mutex_);
    std::optional<Launch> BeginRestart(const Message::RestartAppInfo& item, Answers& answers)
        PROCMGR_REQUIRES(mutex_);
    void FinishDirectRestart(const Record& record, std::optional<App::LaunchPlan> plan,
                             Answers& answers) PROCMGR_REQUIRES(mutex_);
    void RestartRunning(const Record& record, App::AppSpec next, const std::string& requester)
        PROCMGR_REQUIRES(mutex_);
    std::optional<Launch> HandlePriorityApps(const Record& record, App::AppSpec spec,
                                             Answers& answers) PROCMGR_REQUIRES(mutex_);
    // Gives the record the values of its next process, marks it as being launched, and adds
    // it to the map, so that the record is there before the process.
    Launch BeginLaunch(const Record& record, App::AppSpec spec, const std::string& owner)
        PROCMGR_REQUIRES(mutex_);
    // The second stage of a launch. False, with a log line, when there is no process; a record that
    // has never had one then leaves the map.
    bool FinishLaunch(const Record& record, std::optional<App::LaunchPlan> plan)
        PROCMGR_REQUIRES(mutex_);
    // Throws nothing once there is a child.
    bool TryStart(App::GeneralAppInfo& app, std::optional<App::LaunchPlan> plan)
        PROCMGR_REQUIRES(mutex_);
    void CheckOne(App::GeneralAppInfo& app, SteadyTime now) PROCMGR_REQUIRES(mutex_);
    // Reports the change that the report type of the record describes, and raises or withdraws the
    // fault of the application.
    void NoteChange(App::GeneralAppInfo& app) PROCMGR_REQUIRES(mutex_);
    // Gives the record its history, before a launch by the record's present values.
    void NoteLaunch(App::GeneralAppInfo& app) PROCMGR_REQUIRES(mutex_);
    // Copies the views of the next applications after the name `last`, which becomes the name of
    // the last one. Returns the number of applications that were looked at.
    size_t CopyViews(std::string& last, std::vector<App::AppView>& views) PROCMGR_EXCLUDES(mutex_);
    void KillAll() PROCMGR_REQUIRES(mutex_);
    // Queues a call of the device library; takes no lock of this object.
    void RaiseStartFault(const App::GeneralAppInfo& app);

    App::ProcessLauncher& launcher_;
    CheckRequests& checks_;
    App::StateReports& reports_;
    App::SensorNodeEventReporter& faults_;
    const StartupConfig& config_;

    Mutex mutex_;
    Condition exited_;  // notified when an exit has been stored
    std::map<std::string, Record> generalAppMap_ PROCMGR_GUARDED_BY(mutex_);
    ChangeReports changeReports_ PROCMGR_GUARDED_BY(mutex_);
    App::ProcessIndex<App::GeneralAppInfo> processes_ PROCMGR_GUARDED_BY(mutex_);
    App::DueRecords<App::GeneralAppInfo> due_ PROCMGR_GUARDED_BY(mutex_);
    // None while the status endpoint is off.
    std::optional<App::HistoryTable> histories_ PROCMGR_GUARDED_BY(mutex_);
    // The revision of the configuration that was last applied to the records in the map.
    uint64_t seenRevision_ PROCMGR_GUARDED_BY(mutex_) = 0;
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr
