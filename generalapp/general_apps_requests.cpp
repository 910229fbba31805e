// What owners ask for.
#include <sys/wait.h>

#include <chrono>
#include <utility>

#include "app/app_spec.h"
#include "app/sensor_node_event_reporter.h"
#include "generalapp/general_apps.h"
#include "main/common/boot_trace.h"
#include "main/common/log.h"

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

void RaiseFault(const GeneralAppInfo& app) {
    SensorNodeEventReporter::GetInstance().Raise(App::GENERAL_APP_NODE, app.appName_,
                                                 App::EVENT_START_FAILED, app.nodeType_);
}

// A record whose start is being prepared counts as starting.
std::string StateOf(const GeneralAppInfo& app) {
    return GetProcessStateStr(app.isLaunching_ && app.GetState() != RESTARTING ? STARTING
                                                                               : app.GetState());
}

}  // namespace

void GeneralApps::Answer(ChangeList& pending, const std::string& owner, const Record& record,
                         ReportAppStateType reportType) {
    const std::string appOwner = record->IsPriority() ? PROC_ZORNMGR : record->owner_;
    pending.push_back(
        {owner, MakeStateInfo(*record, reportType, 0), appOwner, record, record->changes_});
}

// About a name that nothing is known of.
void GeneralApps::Answer(ChangeList& pending, const std::string& owner, const std::string& name,
                         ReportAppStateType reportType) {
    AppStateInfo item;
    item.appName = name;
    item.reportType = reportType;
    pending.push_back({owner, item, owner, nullptr, 0});
}

GeneralApps::Record GeneralApps::Find(const std::string& name) const {
    const auto entry = generalAppMap_.find(name);
    return entry == generalAppMap_.end() ? nullptr : entry->second;
}

bool GeneralApps::IsInMap(const Record& record) const {
    return Find(record->appName_) == record;
}

void GeneralApps::UpdateAllGeneralAppMap() {
    const uint64_t revision = config_.GetRevision();
    if (revision == seenRevision_) {
        return;
    }
    for (const auto& [name, app] : generalAppMap_) {
        if (const auto manifest = config_.Find(name)) {
            app->Refresh(*manifest);
        }
    }
    seenRevision_ = revision;
}

GeneralApps::Record GeneralApps::GetGeneralApp(const std::string& name, const std::string& owner) {
    UpdateAllGeneralAppMap();
    if (Record running = Find(name)) {
        return running;
    }
    if (const auto manifest = config_.Find(name)) {
        const bool isPriority = manifest->GetStartupPriority() != App::AppSpec::NO_PRIORITY;
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
        std::optional<Launch> launch;
        {
            const LockGuard lock(mutex_);
            if (!BeginStart(item, owner, pending, launch)) {
                return;
            }
        }
        if (launch) {
            std::optional<App::LaunchPlan> plan = Prepare(launch->copy);
            const LockGuard lock(mutex_);
            FinishStart(launch->record, std::move(plan), owner, pending);
        }
    }
    ReportPending(pending);
}

bool GeneralApps::BeginStart(const Message::StartAppInfo& item, const std::string& owner,
                             ChangeList& pending, std::optional<Launch>& launch) {
    const std::string& name = item.appName;
    const Record record = GetGeneralApp(name, owner);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp: appName=%s is null", name.c_str());
        return false;
    }
    std::optional<App::AppSpec> spec = record->MakeStart(item.argv, item.dynamicPara);
    if (!spec) {
        Answer(pending, owner, record, TERMINATED_ABNORMAL_EXIT);
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp failed : appName=%s, dynamic para invalid",
                   name.c_str());
        return true;
    }
    // A process that is there is what it was started as.
    if (record->IsAlive() ? record->IsPriority() : spec->IsPriority()) {
        launch = HandlePriorityApps(record, std::move(*spec), owner, pending);
        return true;
    }
    if (IsInMap(record) && record->GetState() == RUNNING) {
        Answer(pending, owner, record, RUNNING_NORMAL_START);
        ProcMgrLog(LOG_WARNING, "PROCMGR : StartApp : appName=%s, pid=%d is already running",
                   name.c_str(), record->pid_);
        return true;
    }
    if (record->isLaunching_ || (IsInMap(record) && record->GetState() != TERMINATED)) {
        Answer(pending, owner, record, INVALID_INTERMEDIATE_STATE);
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp : appName=%s, pid=%d, state=%s is in invalid state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return true;
    }
    if (IsInMap(record)) {
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : appName=%s, pid=%d, state=%s is in terminated state, but not remove "
                   "from generalAppMap yet, so go on",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
    }
    launch = BeginLaunch(record, std::move(*spec), owner);
    return true;
}

// The report that the application runs follows from the next pass.
void GeneralApps::FinishStart(const Record& record, std::optional<App::LaunchPlan> plan,
                              const std::string& owner, ChangeList& pending) {
    if (FinishLaunch(record, std::move(plan))) {
        record->ChangeState(STARTING, App::ChangeReason::STARTED);
        return;
    }
    Answer(pending, owner, record, TERMINATED_ABNORMAL_EXIT);
    ProcMgrLog(LOG_ERR,
               "PROCMGR : StartApp : StartProcess failed : appName=%s, pid=%d, state=%s, %s",
               record->appName_.c_str(), record->pid_, StateOf(*record).c_str(),
               BootStrace(BOOT_TRACE_TAG).c_str());
    RaiseFault(*record);
}

GeneralApps::Launch GeneralApps::BeginLaunch(const Record& record, App::AppSpec spec,
                                             const std::string& owner) {
    record->owner_ = spec.IsPriority() ? PROC_ZORNMGR : owner;
    record->TakeSpec(std::move(spec));
    Launch launch{record, *record};
    generalAppMap_.try_emplace(record->appName_, record);
    record->isLaunching_ = true;
    return launch;
}

bool GeneralApps::FinishLaunch(const Record& record, std::optional<App::LaunchPlan> plan) {
    record->isLaunching_ = false;
    checks_.Request();
    const bool isStarted = TryStart(*record, std::move(plan));
    if (!isStarted && record->GetState() == INITSTATE) {
        generalAppMap_.erase(record->appName_);
    }
    return isStarted;
}

std::optional<GeneralApps::Launch> GeneralApps::HandlePriorityApps(const Record& record,
                                                                   App::AppSpec spec,
                                                                   const std::string& owner,
                                                                   ChangeList& pending) {
    ProcMgrLog(LOG_INFO, "PROCMGR : HandlePriorityApps app=%s, pid=%d, state=%s to owner=%s",
               record->appName_.c_str(), record->pid_, StateOf(*record).c_str(), owner.c_str());
    const bool isStopped = record->GetState() == TERMINATED || record->GetState() == INITSTATE;
    if (isStopped && !record->isLaunching_) {
        // The asker is told how it went, as of any application.
        record->asker_ = owner == PROC_ZORNMGR ? std::string() : owner;
        return BeginLaunch(record, std::move(spec), PROC_ZORNMGR);
    }
    Answer(pending, owner, record,
           record->GetState() == RUNNING ? RUNNING_NORMAL_START : INVALID_INTERMEDIATE_STATE);
    return std::nullopt;
}

void GeneralApps::StartPriorityApps(const std::string& path) {
    for (const ApplicationManifest& manifest : config_.GetPriorityApps(path)) {
        std::optional<Launch> launch;
        {
            const LockGuard lock(mutex_);
            const Record record = GetGeneralApp(manifest.GetAppName(), PROC_ZORNMGR);
            if (record != nullptr && !IsInMap(record) && record->IsPriority()) {
                launch = BeginLaunch(record, *record, PROC_ZORNMGR);
            }
        }
        if (!launch) {
            continue;
        }
        std::optional<App::LaunchPlan> plan = Prepare(launch->copy);
        const LockGuard lock(mutex_);
        // Nobody has asked, so a failure waits like every other change.
        ChangeList failed;
        FinishStart(launch->record, std::move(plan), PROC_ZORNMGR, failed);
        for (const Change& change : failed) {
            HoldBack(change.item);
        }
    }
}

void GeneralApps::TermGeneralApp(const std::vector<Message::TermAppInfo>& items,
                                 const std::string& owner) {
    LogRequest("TERM_APP", items, owner);
    ChangeList pending;
    for (const Message::TermAppInfo& item : items) {
        const LockGuard lock(mutex_);
        Terminate(item.appName, owner, pending);
    }
    ReportPending(pending);
}

void GeneralApps::ReportPending(const ChangeList& pending) {
    {
        const LockGuard lock(mutex_);
        // What supervision has found comes first.
        QueueOutbox();
        if (view_.isZornReady()) {
            QueueHeldBack();
        }
        ReportGeneralAppChanges(pending, true);
    }
    reports_.Flush();
}

void GeneralApps::Terminate(const std::string& name, const std::string& owner,
                            ChangeList& pending) {
    const Record record = GetGeneralApp(name, owner);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : termApp failed: not find app=%s", name.c_str());
        Answer(pending, owner, name, TERMINATED_NORMAL_EXIT);
        return;
    }
    const bool isRemoved = !IsInMap(record);
    if (!record->isLaunching_ && (isRemoved || record->GetState() == TERMINATED)) {
        Answer(pending, owner, record, TERMINATED_NORMAL_EXIT);
        ProcMgrLog(LOG_INFO,
                   isRemoved
                       ? "PROCMGR : TermGeneralApp:app=%s is already terminated and removed"
                       : "PROCMGR : TermGeneralApp:app=%s is already terminated but not removed",
                   name.c_str());
        return;
    }
    if (record->GetState() != RUNNING) {
        Answer(pending, owner, record, INVALID_INTERMEDIATE_STATE);
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : TermGeneralApp failed: appName=%s, pid=%d, state=%s is invalid "
                   "intermediate state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    record->BeginTermination(std::chrono::steady_clock::now());
    if (!record->TermProcess()) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : TermGeneralApp failed: TermProcess failed: appName=%s, pid=%d, "
                   "state=%s)",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    record->ChangeState(TERMINATING, App::ChangeReason::TERMINATION);
    checks_.Request();
}

void GeneralApps::RestartApp(const std::vector<Message::RestartAppInfo>& items,
                             const std::string& owner) {
    LogRequest("RESTART_APP", items, owner);
    ChangeList pending;
    for (const Message::RestartAppInfo& item : items) {
        std::optional<Launch> launch;
        {
            const LockGuard lock(mutex_);
            launch = BeginRestart(item, owner, pending);
        }
        if (launch) {
            std::optional<App::LaunchPlan> plan = Prepare(launch->copy);
            const LockGuard lock(mutex_);
            FinishDirectRestart(launch->record, std::move(plan), owner, pending);
        }
    }
    ReportPending(pending);
}

std::optional<GeneralApps::Launch> GeneralApps::BeginRestart(const Message::RestartAppInfo& item,
                                                             const std::string& owner,
                                                             ChangeList& pending) {
    const std::string& name = item.appName;
    const Record record = GetGeneralApp(name, owner);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed: not find app=%s", name.c_str());
        Answer(pending, owner, name, TERMINATED_ABNORMAL_EXIT);
        return std::nullopt;
    }
    std::optional<App::AppSpec> spec = record->MakeStart(item.argv, item.dynamicPara);
    if (!spec) {
        Answer(pending, owner, record, TERMINATED_ABNORMAL_EXIT);
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed : appName=%s, dynamic para invalid",
                   name.c_str());
        return std::nullopt;
    }
    const bool isGone = !IsInMap(record) || record->GetState() == TERMINATED;
    if (isGone && !record->isLaunching_) {
        return BeginLaunch(record, std::move(*spec), owner);
    }
    if (record->GetState() != RUNNING || isStopping_) {
        Answer(pending, owner, record, INVALID_INTERMEDIATE_STATE);
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : RestartApp failed: StartProcess : appName=%s, pid=%d, state=%s is "
                   "invalid intermediate state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return std::nullopt;
    }
    RestartRunning(record, std::move(*spec));
    return std::nullopt;
}

void GeneralApps::FinishDirectRestart(const Record& record, std::optional<App::LaunchPlan> plan,
                                      const std::string& owner, ChangeList& pending) {
    const bool isRemoved = record->GetState() == INITSTATE;
    const bool isTerminated = record->GetState() == TERMINATED;
    if (!FinishLaunch(record, std::move(plan))) {
        Answer(pending, owner, record, TERMINATED_ABNORMAL_EXIT);
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed: StartProcess failed appName=%s, pid=%d",
                   record->appName_.c_str(), record->pid_);
        RaiseFault(*record);
        return;
    }
    record->ChangeState(RESTARTING, App::ChangeReason::RESTART);
    record->restartStarted_ = true;
    ProcMgrLog(LOG_INFO, "PROCMGR : RestartApp=%s, pid=%d success, isRemoved=%d, isTermminated=%d",
               record->appName_.c_str(), record->pid_, isRemoved, isTerminated);
}

// The new process is started by supervision once the old one has ended.
void GeneralApps::RestartRunning(const Record& record, App::AppSpec next) {
    record->savedForceTerm_ = record->forceTerm_;
    record->SetNext(std::move(next));
    record->BeginTermination(std::chrono::steady_clock::now());
    if (!record->TermProcess()) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : RestartApp failed: TermProcess failed : appName=%s pid=%d, state=%s",
                   record->appName_.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    record->restartStarted_ = false;
    record->ChangeState(RESTARTING, App::ChangeReason::RESTART);
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
        const LockGuard lock(mutex_);
        for (const std::string& name : names) {
            const Record record = Find(name);
            if (!statusByName.contains(name)) {
                statusByName[name] = record == nullptr ? STATUS_GONE : Probe(*record);
            }
        }
    }
    reports_.ReportAppDetailStatus(statusByName, owner);
    reports_.Flush();
    ProcMgrLog(LOG_DEBUG, "%s PM finish QUERY_APP_STATE request from %s",
               BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str());
}

uint32_t GeneralApps::Probe(const GeneralAppInfo& app) {
    if (app.isLaunching_ || app.IsRestartDue()) {
        return STATUS_ALIVE;
    }
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
