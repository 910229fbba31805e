// The applications that owners ask for: the map of their records, and its lock. Request handlers
// start, stop, restart and query them, the reaper stores their exits, CheckThread moves them from
// state to state. Reports are collected under the lock and sent, in order, after it.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "app/app_info.h"
#include "app/managed_records.h"
#include "app/owner_link.h"
#include "app/process_launcher.h"
#include "generalapp/startup_config.h"
#include "main/check_requests.h"
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
    GeneralApps(App::ProcessLauncher& launcher, CheckRequests& checks,
                const App::StateReports& reports, const StartupConfig& config, OwnerView view);

    // The requests of `owner`. Each item is handled under its own hold of the lock; what is to be
    // reported at once is sent at the end.
    void StartApp(const std::vector<Message::StartAppInfo>& items, const std::string& owner);
    void TermGeneralApp(const std::vector<Message::TermAppInfo>& items, const std::string& owner);
    void RestartApp(const std::vector<Message::RestartAppInfo>& items, const std::string& owner);
    void QueryAppState(const std::vector<std::string>& names, const std::string& owner);

    // Starts the priority applications that are known, in their order.
    void StartPriorityApps();

    // Stores the exit of the process `pid`; false when no application has it.
    bool SetExitStatus(int32_t pid, int32_t status);

    // One pass of CheckThread: moves the records from state to state and reports the changes.
    void CheckGeneralApps(CheckPass pass);
    void RemoveTerminatedApps();

    // Reports what could not be told to the access manager while it was not ready.
    void ReportHeldBack();

    // Shows every record to the visitor; see RecordContainer.
    bool Visit(const App::RecordVisitor& visitor);

    // Every application with its present state.
    std::vector<Message::AppStateInfo> GetStates();

    // Ends every application: SIGTERM, then SIGKILL when its term time-out has passed. Starts
    // nothing any more. Needs the reaper and CheckThread.
    void StopAll();

private:
    using Record = std::shared_ptr<App::GeneralAppInfo>;
    // (owner, item), in the order in which they came about.
    using ChangeList = std::vector<std::pair<std::string, Message::AppStateInfo>>;

    void ReportGeneralAppChanges(const ChangeList& changes) const;
    // What a request has collected, as far as it is still true.
    void ReportPending(ChangeList pending);
    // Sends what is in outbox_. The caller holds reportOrder_.
    void SendOutbox();

    // The callers of all that follow hold mutex_.
    // The record in the map, or one made from what is known; null, with a log line, for neither.
    Record GetGeneralApp(const std::string& name, const std::string& owner);
    void UpdateAllGeneralAppMap();
    Record Find(const std::string& name) const;
    bool IsInMap(const Record& record) const;
    // One item of a request. Start returns false when the rest of the request is to be dropped.
    bool Start(const Message::StartAppInfo& item, const std::string& owner, ChangeList& pending);
    void Terminate(const std::string& name, const std::string& owner, ChangeList& pending);
    void Restart(const Message::RestartAppInfo& item, const std::string& owner,
                 ChangeList& pending);
    void RestartRunning(const Record& record);
    void HandlePriorityApps(const Record& record, const std::string& owner, ChangeList& pending);
    void StartStopped(const Record& record, const std::string& owner, ChangeList& pending);
    // Forks with the record in the map already: nothing that fails after the fork can lose it.
    bool StartInMap(const Record& record);
    static uint32_t Probe(const App::GeneralAppInfo& app);
    void CheckOne(App::GeneralAppInfo& app, SteadyTime now);
    // Keeps what the access manager is to be told once it is ready: each application's last change.
    void HoldBack(const Message::AppStateInfo& item);
    bool HasLive() const;

    App::ProcessLauncher& launcher_;
    CheckRequests& checks_;
    const App::StateReports& reports_;
    const StartupConfig& config_;
    const OwnerView view_;

    // Held while changes are collected and sent, so that an earlier one is sent earlier. Taken
    // before mutex_.
    std::mutex reportOrder_;
    // Changes of CheckThread that are not told yet; guarded by reportOrder_. They stay until they
    // have been sent: the records do not tell of them again.
    ChangeList outbox_;
    std::mutex mutex_;
    std::condition_variable exited_;  // an exit has been stored
    // All guarded by mutex_.
    std::map<std::string, Record> generalAppMap_;
    ChangeList heldBack_;
    bool isStopping_ = false;
};

}  // namespace ProcMgr
