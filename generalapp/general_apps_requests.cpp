// The requests of owner services: start, terminate, restart, query; and the start of the priority
// applications.
#include <sys/wait.h>

#include <chrono>
#include <utility>

#include "app/app_spec.h"
#include "generalapp/general_apps.h"
#include "main/common/boot_trace.h"
#include "main/common/log.h"

namespace ProcMgr {

using App::GeneralAppInfo;

namespace {

// The status of an application in the answer to a query.
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

// Changes are reported to the owner of an application. The console acts for a person who waits for
// the outcome, whoever the owner is.
void NoteConsole(GeneralAppInfo& app, const std::string& requester) {
    if (requester == PROC_CONSOLE) {
        app.asker_ = requester;
    }
}

// The name of the state. A record that is being launched counts as starting.
std::string StateOf(const GeneralAppInfo& app) {
    return GetProcessStateStr(app.isLaunching_ && app.GetState() != RESTARTING ? STARTING
                                                                               : app.GetState());
}

// The answer of a query about an application with a record.
uint32_t Probe(const GeneralAppInfo& app) {
    if (app.isLaunching_ || app.IsRestartDue()) {
        return STATUS_ALIVE;
    }
    // The pid of a collected process may have been reused by another child.
    if (!app.IsAlive()) {
        return STATUS_GONE;
    }
    // WNOWAIT leaves a stop visible to the next query and an exit to the reaper.
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

}  // namespace

void GeneralApps::StartApp(const std::vector<Message::StartAppInfo>& items,
                           const std::string& owner) {
    LogRequest("START_APP", items, owner);
    Answers answers(owner);
    for (const Message::StartAppInfo& item : items) {
        std::optional<Launch> launch;
        {
            const LockGuard lock(mutex_);
            const Record record = GetGeneralApp(item.appName, owner);
            if (record == nullptr) {
                ProcMgrLog(LOG_ERR, "PROCMGR : StartApp: appName=%s is null", item.appName.c_str());
                return;
            }
            launch = BeginStart(record, item, answers);
        }
        if (launch) {
            std::optional<App::LaunchPlan> plan = Prepare(launch->copy);
            const LockGuard lock(mutex_);
            FinishStart(launch->record, std::move(plan), answers);
        }
    }
    SendAnswers(answers);
}

std::optional<GeneralApps::Launch> GeneralApps::BeginStart(const Record& record,
                                                           const Message::StartAppInfo& item,
                                                           Answers& answers) {
    const std::string& name = item.appName;
    std::optional<App::AppSpec> spec = record->MakeStart(item.argv, item.dynamicPara);
    if (!spec) {
        answers.Add(record, TERMINATED_ABNORMAL_EXIT);
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp failed : appName=%s, dynamic para invalid",
                   name.c_str());
        return std::nullopt;
    }
    // For a live process the record decides whether it is a priority application; the configuration
    // applies to the next process only.
    if (record->IsAlive() ? record->IsPriority() : spec->IsPriority()) {
        return HandlePriorityApps(record, std::move(*spec), answers);
    }
    if (IsInMap(record) && record->GetState() == RUNNING) {
        answers.Add(record, RUNNING_NORMAL_START);
        ProcMgrLog(LOG_WARNING, "PROCMGR : StartApp : appName=%s, pid=%d is already running",
                   name.c_str(), record->pid_);
        return std::nullopt;
    }
    if (record->isLaunching_ || (IsInMap(record) && record->GetState() != TERMINATED)) {
        answers.Add(record, INVALID_INTERMEDIATE_STATE);
        ProcMgrLog(LOG_ERR, "PROCMGR : StartApp : appName=%s, pid=%d, state=%s is in invalid state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return std::nullopt;
    }
    if (IsInMap(record)) {
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : appName=%s, pid=%d, state=%s is in terminated state, but not remove "
                   "from generalAppMap yet, so go on",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
    }
    return BeginLaunch(record, std::move(*spec), answers.GetOwner());
}

// The next check pass reports that the application runs.
void GeneralApps::FinishStart(const Record& record, std::optional<App::LaunchPlan> plan,
                              Answers& answers) {
    if (FinishLaunch(record, std::move(plan))) {
        record->ChangeState(STARTING, App::ChangeReason::STARTED);
        return;
    }
    answers.Add(record, TERMINATED_ABNORMAL_EXIT);
    ProcMgrLog(LOG_ERR,
               "PROCMGR : StartApp : StartProcess failed : appName=%s, pid=%d, state=%s, %s",
               record->appName_.c_str(), record->pid_, StateOf(*record).c_str(),
               BootStrace(BOOT_TRACE_TAG).c_str());
    RaiseStartFault(*record);
}

std::optional<GeneralApps::Launch> GeneralApps::HandlePriorityApps(const Record& record,
                                                                   App::AppSpec spec,
                                                                   Answers& answers) {
    ProcMgrLog(LOG_INFO, "PROCMGR : HandlePriorityApps app=%s, pid=%d, state=%s to owner=%s",
               record->appName_.c_str(), record->pid_, StateOf(*record).c_str(),
               answers.GetOwner().c_str());
    const bool isStopped = record->GetState() == TERMINATED || record->GetState() == INITSTATE;
    if (isStopped && !record->isLaunching_) {
        // asker_ makes supervision report the outcome to the requester as well as to the access
        // manager.
        const std::string& owner = answers.GetOwner();
        record->asker_ = owner == PROC_ZORNMGR ? std::string() : owner;
        return BeginLaunch(record, std::move(spec), PROC_ZORNMGR);
    }
    answers.Add(record,
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
                launch = BeginLaunch(record, record->GetEntry(), PROC_ZORNMGR);
            }
        }
        if (!launch) {
            continue;
        }
        std::optional<App::LaunchPlan> plan = Prepare(launch->copy);
        const LockGuard lock(mutex_);
        // No request is waiting for this answer, so it is held back like any other change.
        Answers failed(PROC_ZORNMGR);
        FinishStart(launch->record, std::move(plan), failed);
        for (const Change& change : failed.GetList()) {
            changeReports_.HoldBack(change.item);
        }
    }
}

void GeneralApps::TermGeneralApp(const std::vector<Message::TermAppInfo>& items,
                                 const std::string& owner) {
    LogRequest("TERM_APP", items, owner);
    Answers answers(owner);
    for (const Message::TermAppInfo& item : items) {
        const LockGuard lock(mutex_);
        Terminate(item.appName, answers);
    }
    SendAnswers(answers);
}

void GeneralApps::SendAnswers(const Answers& answers) {
    {
        const LockGuard lock(mutex_);
        changeReports_.QueueAnswers(answers);
    }
    reports_.Flush();
}

void GeneralApps::Terminate(const std::string& name, Answers& answers) {
    const Record record = GetGeneralApp(name, answers.GetOwner());
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : termApp failed: not find app=%s", name.c_str());
        answers.AddUnknown(name, TERMINATED_NORMAL_EXIT);
        return;
    }
    const bool isRemoved = !IsInMap(record);
    if (!record->isLaunching_ && (isRemoved || record->GetState() == TERMINATED)) {
        answers.Add(record, TERMINATED_NORMAL_EXIT);
        ProcMgrLog(LOG_INFO,
                   isRemoved
                       ? "PROCMGR : TermGeneralApp:app=%s is already terminated and removed"
                       : "PROCMGR : TermGeneralApp:app=%s is already terminated but not removed",
                   name.c_str());
        return;
    }
    if (record->GetState() != RUNNING) {
        answers.Add(record, INVALID_INTERMEDIATE_STATE);
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
    NoteConsole(*record, answers.GetOwner());
    record->ChangeState(TERMINATING, App::ChangeReason::TERMINATION);
    due_.Add(*record);
    checks_.Request();
}

void GeneralApps::RestartApp(const std::vector<Message::RestartAppInfo>& items,
                             const std::string& owner) {
    LogRequest("RESTART_APP", items, owner);
    Answers answers(owner);
    for (const Message::RestartAppInfo& item : items) {
        std::optional<Launch> launch;
        {
            const LockGuard lock(mutex_);
            launch = BeginRestart(item, answers);
        }
        if (launch) {
            std::optional<App::LaunchPlan> plan = Prepare(launch->copy);
            const LockGuard lock(mutex_);
            FinishDirectRestart(launch->record, std::move(plan), answers);
        }
    }
    SendAnswers(answers);
}

std::optional<GeneralApps::Launch> GeneralApps::BeginRestart(const Message::RestartAppInfo& item,
                                                             Answers& answers) {
    const std::string& name = item.appName;
    const Record record = GetGeneralApp(name, answers.GetOwner());
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed: not find app=%s", name.c_str());
        answers.AddUnknown(name, TERMINATED_ABNORMAL_EXIT);
        return std::nullopt;
    }
    std::optional<App::AppSpec> spec = record->MakeStart(item.argv, item.dynamicPara);
    if (!spec) {
        answers.Add(record, TERMINATED_ABNORMAL_EXIT);
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed : appName=%s, dynamic para invalid",
                   name.c_str());
        return std::nullopt;
    }
    const bool isGone = !IsInMap(record) || record->GetState() == TERMINATED;
    if (isGone && !record->isLaunching_) {
        NoteConsole(*record, answers.GetOwner());
        return BeginLaunch(record, std::move(*spec), answers.GetOwner());
    }
    if (record->GetState() != RUNNING || isStopping_) {
        answers.Add(record, INVALID_INTERMEDIATE_STATE);
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : RestartApp failed: StartProcess : appName=%s, pid=%d, state=%s is "
                   "invalid intermediate state",
                   name.c_str(), record->pid_, StateOf(*record).c_str());
        return std::nullopt;
    }
    RestartRunning(record, std::move(*spec), answers.GetOwner());
    return std::nullopt;
}

void GeneralApps::FinishDirectRestart(const Record& record, std::optional<App::LaunchPlan> plan,
                                      Answers& answers) {
    const bool isRemoved = record->GetState() == INITSTATE;
    const bool isTerminated = record->GetState() == TERMINATED;
    if (!FinishLaunch(record, std::move(plan))) {
        answers.Add(record, TERMINATED_ABNORMAL_EXIT);
        ProcMgrLog(LOG_ERR, "PROCMGR : RestartApp failed: StartProcess failed appName=%s, pid=%d",
                   record->appName_.c_str(), record->pid_);
        RaiseStartFault(*record);
        return;
    }
    record->ChangeState(RESTARTING, App::ChangeReason::RESTART);
    record->restartStarted_ = true;
    ProcMgrLog(LOG_INFO, "PROCMGR : RestartApp=%s, pid=%d success, isRemoved=%d, isTermminated=%d",
               record->appName_.c_str(), record->pid_, isRemoved, isTerminated);
}

// Only ends the old process: a check pass starts the new one after the exit.
void GeneralApps::RestartRunning(const Record& record, App::AppSpec next,
                                 const std::string& requester) {
    record->savedForceTerm_ = record->forceTerm_;
    record->SetNext(std::move(next));
    record->BeginTermination(std::chrono::steady_clock::now());
    if (!record->TermProcess()) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : RestartApp failed: TermProcess failed : appName=%s pid=%d, state=%s",
                   record->appName_.c_str(), record->pid_, StateOf(*record).c_str());
        return;
    }
    NoteConsole(*record, requester);
    record->restartStarted_ = false;
    record->ChangeState(RESTARTING, App::ChangeReason::RESTART);
    due_.Add(*record);
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

}  // namespace ProcMgr
