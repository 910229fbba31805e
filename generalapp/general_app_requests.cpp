// What owners ask for.
#include <sys/wait.h>

#include <chrono>
#include <new>

#include "app/sensor_node_event_reporter.h"
#include "generalapp/general_apps.h"
#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/log.h"

namespace ProcMgr {

using App::GeneralAppInfo;
using App::MakeStateInfo;
using App::SensorNodeEventReporter;
using Message::AppStateInfo;

namespace {

// Answers of a query.
constexpr uint32_t STATUS_ALIVE = 0;
constexpr uint32_t STATUS_GONE = 1;
constexpr uint32_t STATUS_STOPPED = 2;

std::string NameOf(const std::string& name) {
    return name;
}
template <typename Item>
std::string NameOf(const Item& item) {
    return item.appName;
}

template <typename Item>
std::string JoinNames(const std::vector<Item>& items) {
    std::string names;
    for (const Item& item : items) {
        names += NameOf(item) + ",";
    }
    return names;
}

template <typename Item>
void LogRequest(const char* type, const std::vector<Item>& items, const std::string& owner) {
    ProcMgrLog(LOG_INFO, "%s PM receive %s msg from %s, appList=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), type, owner.c_str(), JoinNames(items).c_str());
}

AppStateInfo Placeholder(const std::string& name, ReportAppStateType reportType) {
    AppStateInfo info;
    info.appName = name;
    info.reportType = reportType;
    return info;
}

void RaiseFault(const GeneralAppInfo& app) {
    SensorNodeEventReporter::GetInstance().Raise(App::GENERAL_APP_NODE, app.appName_,
                                                 App::EVENT_START_FAILED, app.nodeType_);
}

std::string StateOf(const GeneralAppInfo& app) {
    return GetProcessStateStr(app.state_);
}

}  // namespace

GeneralApps::Record GeneralApps::Find(const std::string& name) const {
    const auto entry = generalAppMap_.find(name);
    return entry == generalAppMap_.end() ? nullptr : entry->second;
}

bool GeneralApps::IsInMap(const Record& record) const {
    return Find(record->appName_) == record;
}

// What has ended takes over what the configuration says now; what runs goes on as it is.
void GeneralApps::UpdateAllGeneralAppMap() {
    for (const auto& [name, app] : generalAppMap_) {
        if (app->state_ == TERMINATED) {
            if (const auto manifest = config_.Find(name)) {
                app->Refresh(*manifest, name);
            }
        }
    }
}

GeneralApps::Record GeneralApps::GetGeneralApp(const std::string& name, const std::string& owner) {
    UpdateAllGeneralAppMap();
    if (Record running = Find(name)) {
        return running;
    }
    if (const auto manifest = config_.Find(name)) {
        const bool isPriority = manifest->GetStartupPriority() != GeneralAppInfo::NO_PRIORITY;
        return std::make_shared<GeneralAppInfo>(name, *manifest, isPriority ? PROC_ZORNMGR : owner);
    }
    ProcMgrLog(LOG_ERR, "PROCMGR : GetGeneralApp failed: app=%s", name.c_str());
    return nullptr;
}

void GeneralApps::StartApp(const std::vector<Message::StartAppInfo>& items,
                           const std::string& owner) {
    LogRequest("START_APP", items, owner);
    ChangeList pending;
    for (const Message::StartAppInfo& item : items) {
        const std::lock_guard lock(mutex_);
        if (!Start(item, owner, pending)) {
            return;
        }
    }
    ReportPending(std::move(pending));
}

bool GeneralApps::Start(const Message::StartAppInfo& item, const std::string& owner,
                        ChangeList& pending) {
    const std::string& name = item.appName;
    const Record record = GetGeneralApp(name, owner);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp: appName=%s is null", name.c_str());
        return false;
    }
    if (!record->UpdateDynamicPara(item.argv, item.dynamicPara)) {
        pending.emplace_back(owner, MakeStateInfo(*record, TERMINATED_ABNORMAL_EXIT, 0));
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp failed : appName=%s, dynamic para invalid",
                   name.c_str());
        return true;
    }
    if (record->IsPriority()) {
        HandlePriorityApps(record, owner, pending);
        return true;
    }
    if (IsInMap(record) && record->state_ == RUNNING) {
        pending.emplace_back(owner, MakeStateInfo(*record, RUNNING_NORMAL_START, 0));
        ProcMgrLog(LOG_WARNING, "PROCMGR : StartApp : appName=%s, pid=%d is already running",
                   name.c_str(), record->pid_);
        return true;
    }
    if (IsInMap(record) && record->state_ != TERMINATED) {
        pending.emplace_back(owner, MakeStateInfo(*record, INVALID_INTERMEDIATE_STATE, 0));
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp : appName=%s, pid=%d, state=%s is in invalid state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return true;
    }
    if (IsInMap(record)) {
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : appName=%s, pid=%d, state=%s is in terminated state, but not remove "
                   "from generalAppMap yet, so go on",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        record->owner_ = owner;
    }
    StartStopped(record, owner, pending);
    return true;
}

// Starts what is not running. The report that it runs follows from the next pass.
void GeneralApps::StartStopped(const Record& record, const std::string& owner,
                               ChangeList& pending) {
    if (!StartInMap(record)) {
        pending.emplace_back(owner, MakeStateInfo(*record, TERMINATED_ABNORMAL_EXIT, 0));
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : StartApp : StartProcess failed : appName=%s, pid=%d, state=%s, %s",
                   record->appName_.c_str(), record->pid_, StateOf(*record).c_str(),
                   BootStrace(BOOT_TRACE_TAG).c_str());
        RaiseFault(*record);
        return;
    }
    record->state_ = STARTING;
    checks_.Request();
}

bool GeneralApps::StartInMap(const Record& record) {
    const bool isNew = generalAppMap_.try_emplace(record->appName_, record).second;
    bool isStarted = false;
    try {
        isStarted = !isStopping_ && record->StartProcess(launcher_);
    } catch (const std::bad_alloc&) {
        // There is no child: a start throws nothing once it has one.
        ProcMgrLog(LOG_ERR, "PROCMGR : out of memory before a start");
    }
    if (!isStarted && isNew) {
        generalAppMap_.erase(record->appName_);
    }
    return isStarted;
}

void GeneralApps::HandlePriorityApps(const Record& record, const std::string& owner,
                                     ChangeList& pending) {
    ProcMgrLog(LOG_INFO, "PROCMGR : HandlePriorityApps app=%s, pid=%d, state=%s to owner=%s",
               record->appName_.c_str(), record->pid_, StateOf(*record).c_str(), owner.c_str());
    if (record->state_ == RUNNING) {
        pending.emplace_back(owner, MakeStateInfo(*record, RUNNING_NORMAL_START, 0));
    } else if (record->state_ == TERMINATED || record->state_ == INITSTATE) {
        StartStopped(record, owner, pending);
    } else {
        pending.emplace_back(owner, MakeStateInfo(*record, INVALID_INTERMEDIATE_STATE, 0));
    }
}

void GeneralApps::StartPriorityApps() {
    for (const ApplicationManifest& manifest : config_.GetPriorityApps()) {
        const std::lock_guard lock(mutex_);
        // Nobody is there yet to hear of a failure: it waits like every other change.
        const Record record = GetGeneralApp(manifest.GetAppName(), PROC_ZORNMGR);
        ChangeList failed;
        if (record != nullptr && !IsInMap(record)) {
            StartStopped(record, PROC_ZORNMGR, failed);
        }
        for (const auto& change : failed) {
            HoldBack(change.second);
        }
    }
}

void GeneralApps::TermGeneralApp(const std::vector<Message::TermAppInfo>& items,
                                 const std::string& owner) {
    LogRequest("TERM_APP", items, owner);
    ChangeList pending;
    for (const Message::TermAppInfo& item : items) {
        const std::lock_guard lock(mutex_);
        Terminate(item.appName, owner, pending);
    }
    ReportPending(std::move(pending));
}

// An end that came while later items were handled has been told already, and is the last word.
void GeneralApps::ReportPending(ChangeList pending) {
    const std::lock_guard order(reportOrder_);
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(pending, [this](const auto& change) {
            const AppStateInfo& item = change.second;
            const Record record = Find(item.appName);
            const bool isRunning = record != nullptr && record->state_ == RUNNING &&
                                   static_cast<uint32_t>(record->pid_) == item.pid;
            return item.reportType == RUNNING_NORMAL_START && !isRunning;
        });
    }
    ReportGeneralAppChanges(pending);
}

void GeneralApps::Terminate(const std::string& name, const std::string& owner,
                            ChangeList& pending) {
    const Record record = GetGeneralApp(name, owner);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : termApp failed: not find app=%s", name.c_str());
        pending.emplace_back(owner, Placeholder(name, TERMINATED_NORMAL_EXIT));
        return;
    }
    const bool isRemoved = !IsInMap(record);
    if (isRemoved || record->state_ == TERMINATED) {
        pending.emplace_back(owner, MakeStateInfo(*record, TERMINATED_NORMAL_EXIT, 0));
        ProcMgrLog(LOG_INFO,
                   isRemoved
                       ? "PROCMGR : TermGeneralApp:app=%s is already terminated and removed"
                       : "PROCMGR : TermGeneralApp:app=%s is already terminated but not removed",
                   name.c_str());
        return;
    }
    if (record->state_ != RUNNING) {
        pending.emplace_back(owner, MakeStateInfo(*record, INVALID_INTERMEDIATE_STATE, 0));
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : TermGeneralApp failed: appName=%s, pid=%d, state=%s is invalid "
                   "intermediate state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    record->SetTermStartTime(std::chrono::steady_clock::now());
    if (!record->TermProcess()) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : TermGeneralApp failed: TermProcess failed: appName=%s, pid=%d, "
                   "state=%s)",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    record->killSent_ = false;
    record->state_ = TERMINATING;
    checks_.Request();
}

void GeneralApps::RestartApp(const std::vector<Message::RestartAppInfo>& items,
                             const std::string& owner) {
    LogRequest("RESTART_APP", items, owner);
    ChangeList pending;
    for (const Message::RestartAppInfo& item : items) {
        const std::lock_guard lock(mutex_);
        Restart(item, owner, pending);
    }
    ReportPending(std::move(pending));
}

void GeneralApps::Restart(const Message::RestartAppInfo& item, const std::string& owner,
                          ChangeList& pending) {
    const std::string& name = item.appName;
    const Record record = GetGeneralApp(name, owner);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed: not find app=%s", name.c_str());
        pending.emplace_back(owner, Placeholder(name, TERMINATED_ABNORMAL_EXIT));
        return;
    }
    const auto manifest = config_.Find(name);
    if (record->state_ == RUNNING && manifest) {
        record->Refresh(*manifest, name);
    }
    if (!record->UpdateDynamicPara(item.argv, item.dynamicPara)) {
        pending.emplace_back(owner, MakeStateInfo(*record, TERMINATED_ABNORMAL_EXIT, 0));
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed : appName=%s, dynamic para invalid",
                   name.c_str());
        return;
    }
    const bool isRemoved = !IsInMap(record);
    const bool isTerminated = record->state_ == TERMINATED;
    if (isRemoved || isTerminated) {
        if (!record->IsPriority()) {
            record->owner_ = owner;
        }
        if (!StartInMap(record)) {
            pending.emplace_back(owner, MakeStateInfo(*record, TERMINATED_ABNORMAL_EXIT, 0));
            ProcMgrLog(LOG_ERR,
                       "PROCMGR : RestartApp failed: StartProcess failed appName=%s, pid=%d",
                       name.c_str(), record->pid_);
            RaiseFault(*record);
            return;
        }
        record->state_ = RESTARTING;
        record->restartStarted_ = true;
        checks_.Request();
        ProcMgrLog(LOG_INFO,
                   "PROCMGR : RestartApp=%s, pid=%d success, isRemoved=%d, isTermminated=%d",
                   name.c_str(), record->pid_, isRemoved, isTerminated);
        return;
    }
    if (record->state_ != RUNNING || isStopping_) {
        pending.emplace_back(owner, MakeStateInfo(*record, INVALID_INTERMEDIATE_STATE, 0));
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : RestartApp failed: StartProcess : appName=%s, pid=%d, state=%s is "
                   "invalid intermediate state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    RestartRunning(record);
}

// The new process is started by supervision once the old one has ended.
void GeneralApps::RestartRunning(const Record& record) {
    record->savedForceTerm_ = record->forceTerm_;
    record->SetTermStartTime(std::chrono::steady_clock::now());
    if (!record->TermProcess()) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : RestartApp failed: TermProcess failed : appName=%s pid=%d, state=%s",
                   record->appName_.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    record->killSent_ = false;
    record->restartStarted_ = false;
    record->state_ = RESTARTING;
    checks_.Request();
    ProcMgrLog(LOG_INFO,
               "PROCMGR : RestartApp set RESTARTING state finished(when app was running "
               "before):appName=%s, pid=%d, state=%s",
               record->appName_.c_str(), record->pid_, StateOf(*record).c_str());
}

void GeneralApps::QueryAppState(const std::vector<std::string>& names, const std::string& owner) {
    ProcMgrLog(LOG_DEBUG, "%s PM receive QUERY_APP_STATE msg from %s, appList=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str(), JoinNames(names).c_str());
    std::map<std::string, uint32_t> statusByName;
    {
        const std::lock_guard lock(mutex_);
        for (const std::string& name : names) {
            const Record record = Find(name);
            if (!statusByName.contains(name)) {
                statusByName[name] = record == nullptr ? STATUS_GONE : Probe(*record);
            }
        }
    }
    reports_.ReportAppDetailStatus(statusByName, owner);
    ProcMgrLog(LOG_DEBUG, "%s PM finish QUERY_APP_STATE request from %s",
               BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str());
}

uint32_t GeneralApps::Probe(const GeneralAppInfo& app) {
    // A pid whose exit has been collected may belong to another child by now.
    if (!app.IsAlive()) {
        return STATUS_GONE;
    }
    // Only looks: what it sees is left for the next query, and an exit for the reaper.
    siginfo_t change{};
    if (waitid(P_PID, static_cast<id_t>(app.pid_), &change,
               WEXITED | WSTOPPED | WCONTINUED | WNOHANG | WNOWAIT) != 0) {
        return STATUS_GONE;
    }
    if (change.si_pid != 0 && change.si_code == CLD_STOPPED) {
        ProcMgrLog(LOG_INFO, "PROCMGR : app=%s, pid=%d, stopped", app.appName_.c_str(), app.pid_);
        return STATUS_STOPPED;
    }
    return STATUS_ALIVE;
}

}  // namespace ProcMgr
