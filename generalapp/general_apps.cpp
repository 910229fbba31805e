#include "generalapp/general_apps.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <new>
#include <set>
#include <utility>

#include "app/app_spec.h"
#include "app/scheduler_workers.h"
#include "app/sensor_node_event_reporter.h"
#include "app/signals.h"
#include "main/common/log.h"

namespace ProcMgr {

using App::GeneralAppInfo;
using App::SensorNodeEventReporter;
using Message::AppStateInfo;

namespace {

constexpr uint32_t RESULT_NONE = 0;
constexpr uint32_t RESULT_INPUT_OUTPUT_ERROR = 1;
// At the stop: how long after the last time-out CheckThread may take to kill what is late, and then
// the kernel to let it go, before it is left behind.
constexpr std::chrono::milliseconds CHECK_PATIENCE{200};
constexpr std::chrono::milliseconds KILL_PATIENCE{300};
// So many changes of an application are held back for the access manager.
constexpr size_t HELD_BACK_MAX = 64;

bool NeedsCheck(const GeneralAppInfo& app, CheckPass pass, SteadyTime now) {
    if (app.isLaunching_) {
        return false;
    }
    if (pass == CheckPass::EXTRA) {
        return app.exitStatusSet_ && app.GetState() != TERMINATED &&
               now - app.startTime_ > CHECK_PERIOD;
    }
    return app.GetState() != TERMINATED && !app.IsSettled();
}

uint32_t ResultOf(const GeneralAppInfo& app) {
    if (app.reportType_ != TERMINATED_ABNORMAL_EXIT || !app.exitedWith125_) {
        return RESULT_NONE;
    }
    ProcMgrLog(LOG_ERR, "PROCMGR: appName=%s, pid=%u, terminated as input/output error",
               app.appName_.c_str(), static_cast<uint32_t>(app.pid_));
    return RESULT_INPUT_OUTPUT_ERROR;
}

}  // namespace

GeneralApps::GeneralApps(App::ProcessLauncher& launcher, CheckRequests& checks,
                         App::StateReports& reports, const StartupConfig& config, OwnerView view)
    : launcher_(launcher),
      checks_(checks),
      reports_(reports),
      config_(config),
      view_(std::move(view)) {}

bool GeneralApps::SetExitStatus(int32_t pid, int32_t status) {
    const LockGuard lock(mutex_);
    // A collected exit has freed its pid: it may belong to another process by now.
    const auto found = std::find_if(
        generalAppMap_.begin(), generalAppMap_.end(),
        [&](const auto& entry) { return entry.second->pid_ == pid && entry.second->IsAlive(); });
    if (found == generalAppMap_.end()) {
        return false;
    }
    GeneralAppInfo& app = *found->second;
    app.SetExitStatus(status);
    launcher_.Release(app);
    const bool isYoung = std::chrono::steady_clock::now() - app.startTime_ <= CHECK_PERIOD;
    isYoung ? checks_.Request() : checks_.RequestNow();
    exited_.NotifyAll();
    return true;
}

void GeneralApps::CheckGeneralApps(CheckPass pass) {
    std::vector<GeneralAppInfo> restarts = CheckStates(pass);
    reports_.Flush();
    for (GeneralAppInfo& copy : restarts) {
        BeginRestartEnded(copy);
    }
}

// Returns copies of the records whose restart is due.
std::vector<GeneralAppInfo> GeneralApps::CheckStates(CheckPass pass) {
    std::vector<GeneralAppInfo> restarts;
    const LockGuard lock(mutex_);
    if (!heldBack_.empty() && view_.isZornReady()) {
        QueueHeldBack();
    }
    const SteadyTime now = std::chrono::steady_clock::now();
    for (const auto& [name, app] : generalAppMap_) {
        if (NeedsCheck(*app, pass, now)) {
            CheckOne(*app, now);
        }
        if (app->IsRestartDue() && !app->isLaunching_ && !isStopping_) {
            restarts.push_back(*app);
            restarts.back().TakeNext();
        }
        if (NeedsCheck(*app, CheckPass::PERIODIC, now)) {
            checks_.Request();
        }
    }
    QueueOutbox();
    return restarts;
}

// The new process of a restart whose old one is gone. What fails before its preparation is tried
// again by the next pass.
void GeneralApps::BeginRestartEnded(const GeneralAppInfo& copy) {
    const bool isQuick = launcher_.IsQuick(copy);
    const auto job = [this, copy] { RestartEnded(copy); };
    {
        const LockGuard lock(mutex_);
        const Record record = Find(copy.appName_);
        if (record == nullptr || !record->IsRestartDue() || record->isLaunching_) {
            return;
        }
        record->TakeNext();
        record->isLaunching_ = true;
    }
    if (isQuick) {
        RestartEnded(copy);
    } else if (!launcher_.PostSlow(job)) {
        FinishRestartEnded(copy.appName_, std::nullopt);
    }
}

void GeneralApps::RestartEnded(const GeneralAppInfo& copy) {
    FinishRestartEnded(copy.appName_, Prepare(copy));
    reports_.Flush();
}

void GeneralApps::FinishRestartEnded(const std::string& name, std::optional<App::LaunchPlan> plan) {
    const LockGuard lock(mutex_);
    const Record record = Find(name);
    if (record == nullptr) {
        return;
    }
    record->isLaunching_ = false;
    checks_.Request();
    // The stop may have taken the record over.
    if (record->GetState() != RESTARTING) {
        return;
    }
    const bool isStarted = TryStart(*record, std::move(plan));
    record->FinishRestart(isStarted);
    if (!isStarted) {
        NoteChange(*record);
        QueueOutbox();
    }
}

// A start throws nothing once there is a child.
bool GeneralApps::TryStart(GeneralAppInfo& app, std::optional<App::LaunchPlan> plan) {
    try {
        return plan && !isStopping_ && app.StartProcess(launcher_, *plan);
    } catch (const std::bad_alloc&) {
        ProcMgrLog(LOG_ERR, "PROCMGR : out of memory before the start of app=%s",
                   app.appName_.c_str());
        return false;
    }
}

std::optional<App::LaunchPlan> GeneralApps::Prepare(const GeneralAppInfo& copy) {
    try {
        return launcher_.Prepare(copy);
    } catch (const std::exception& error) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the start of app=%s cannot be prepared, %s",
                   copy.appName_.c_str(), error.what());
        return std::nullopt;
    }
}

void GeneralApps::QueueOutbox() {
    ReportGeneralAppChanges(outbox_, false);
    outbox_.clear();
}

void GeneralApps::HoldBack(const AppStateInfo& item) {
    const auto isSame = [&](const AppStateInfo& other) { return other.appName == item.appName; };
    if (std::count_if(heldBack_.begin(), heldBack_.end(), isSame) >=
        static_cast<std::ptrdiff_t>(HELD_BACK_MAX)) {
        heldBack_.erase(std::find_if(heldBack_.begin(), heldBack_.end(), isSame));
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : more than %zu changes of app=%s wait for zornmgr, the oldest is "
                   "dropped",
                   HELD_BACK_MAX, item.appName.c_str());
    }
    heldBack_.push_back(item);
}

void GeneralApps::QueueHeldBack() {
    ChangeList changes;
    for (const AppStateInfo& item : heldBack_) {
        changes.push_back({PROC_ZORNMGR, item, PROC_ZORNMGR, nullptr, 0});
    }
    ReportGeneralAppChanges(changes, false);
    heldBack_.clear();
}

void GeneralApps::CheckOne(GeneralAppInfo& app, SteadyTime now) {
    // The room comes first: once the state has changed the report must not get lost.
    outbox_.reserve(outbox_.size() + 1);
    heldBack_.reserve(heldBack_.size() + 1);
    app.CheckState(now);
    if (app.reportType_ != INVALID_INTERMEDIATE_STATE) {
        NoteChange(app);
    }
}

void GeneralApps::NoteChange(GeneralAppInfo& app) {
    ++app.changes_;
    ProcMgrLog(LOG_INFO,
               "PROCMGR: CheckThread : generalAppName=%s, pid=%d, state=%s get statechange",
               app.appName_.c_str(), app.pid_, GetProcessStateStr(app.GetState()).c_str());
    const AppStateInfo item = App::MakeStateInfo(app, app.reportType_, ResultOf(app));
    const bool isHeldBack = app.IsPriority() && !view_.isZornReady();
    const std::string asker = std::exchange(app.asker_, {});
    if (!app.IsPriority()) {
        outbox_.push_back({app.owner_, item, app.owner_, nullptr, 0});
    } else if (!isHeldBack || !asker.empty()) {
        outbox_.push_back(
            {asker.empty() ? PROC_ZORNMGR : asker, item, PROC_ZORNMGR, nullptr, 0, !isHeldBack});
    }
    if (isHeldBack) {
        HoldBack(item);
    }
    SensorNodeEventReporter& faults = SensorNodeEventReporter::GetInstance();
    if (app.reportType_ == TERMINATED_ABNORMAL_EXIT) {
        faults.Raise(App::GENERAL_APP_NODE, app.appName_, App::EVENT_START_FAILED, app.nodeType_);
    } else if (app.reportType_ == RUNNING_NORMAL_START ||
               app.reportType_ == RUNNING_NORMAL_RESTART) {
        faults.Withdraw(App::GENERAL_APP_NODE, app.appName_, App::EVENT_START_FAILED);
    }
}

void GeneralApps::ReportGeneralAppChanges(const ChangeList& changes, bool isAnswer) {
    if (changes.empty()) {
        return;
    }
    std::vector<AppStateInfo> all;
    for (const Change& change : changes) {
        // What supervision has told of a process since is the last word about it.
        if (!change.isForZorn || IsOutdated(change)) {
            continue;
        }
        const bool isPriority = change.record != nullptr && change.record->IsPriority();
        if (isPriority && !view_.isZornReady()) {
            HoldBack(change.item);
        } else {
            all.push_back(change.item);
        }
    }
    ReportInOrder(all, PROC_ZORNMGR, isAnswer);
    for (const std::string& name : view_.getOwners()) {
        std::vector<AppStateInfo> own;
        for (const Change& change : changes) {
            const bool isOwnApp = change.appOwner == change.owner;
            if (change.owner == name && !(isOwnApp && IsOutdated(change))) {
                own.push_back(change.item);
            }
        }
        if (name != PROC_ZORNMGR) {
            ReportInOrder(own, name, isAnswer);
        }
    }
}

// A record carries its items in an order of its own, so each call has every application once.
void GeneralApps::ReportInOrder(const std::vector<AppStateInfo>& items, const std::string& owner,
                                bool isAnswer) {
    std::vector<AppStateInfo> batch;
    std::set<std::string> names;
    for (const AppStateInfo& item : items) {
        if (!names.insert(item.appName).second && !isAnswer) {
            reports_.ReportAppChanges(batch, owner, isAnswer);
            batch.clear();
            names = {item.appName};
        }
        batch.push_back(item);
    }
    reports_.ReportAppChanges(batch, owner, isAnswer);
}

// Whether supervision has told of a change since the answer was made.
bool GeneralApps::IsOutdated(const Change& change) {
    return change.record != nullptr && change.record->changes_ != change.seen;
}

void GeneralApps::ReportHeldBack() {
    {
        const LockGuard lock(mutex_);
        QueueHeldBack();
    }
    reports_.Flush();
}

void GeneralApps::RemoveTerminatedApps() {
    const LockGuard lock(mutex_);
    std::erase_if(generalAppMap_, [](const auto& entry) {
        if (entry.second->GetState() != TERMINATED || entry.second->isLaunching_) {
            return false;
        }
        ProcMgrLog(LOG_INFO, "PROCMGR : Process %s removed from the list of generalAppMap_",
                   entry.first.c_str());
        return true;
    });
}

bool GeneralApps::Visit(const App::RecordVisitor& visitor) {
    const LockGuard lock(mutex_);
    return std::any_of(generalAppMap_.begin(), generalAppMap_.end(),
                       [&](const auto& entry) { return visitor(*entry.second); });
}

std::vector<AppStateInfo> GeneralApps::GetStates(const std::string& owner) {
    const LockGuard lock(mutex_);
    std::vector<AppStateInfo> states;
    for (const auto& [name, app] : generalAppMap_) {
        if (!owner.empty() && (app->owner_ != owner || app->IsPriority())) {
            continue;
        }
        states.push_back(App::MakeStateInfo(*app, App::PresentStateOf(*app), RESULT_NONE));
    }
    return states;
}

bool GeneralApps::HasLive() const {
    return std::any_of(generalAppMap_.begin(), generalAppMap_.end(),
                       [](const auto& entry) { return entry.second->IsAlive(); });
}

void GeneralApps::StopAll() {
    UniqueLock lock(mutex_);
    isStopping_ = true;
    const SteadyTime now = std::chrono::steady_clock::now();
    SteadyTime end = now;
    for (const auto& [name, app] : generalAppMap_) {
        // A restart whose old process has ended must not come about any more.
        if (!app->IsAlive() && app->GetState() != RESTARTING) {
            continue;
        }
        app->TermProcess();
        app->ChangeState(TERMINATING, App::ChangeReason::TERMINATION);
        app->BeginTermination(now);
        // The state check kills it then, whatever the manifest says about other occasions.
        app->forceTerm_ = true;
        end = std::max(end, now + std::chrono::milliseconds(app->termTimeout_));
    }
    checks_.Request();
    const auto isOver = [this] { return !HasLive(); };
    if (exited_.WaitUntil(lock, end + CHECK_PATIENCE, isOver)) {
        return;
    }
    KillAll();
    if (!exited_.WaitUntil(lock, end + CHECK_PATIENCE + KILL_PATIENCE, isOver)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : some general apps do not end, they are left behind");
    }
}

void GeneralApps::KillAll() {
    for (const auto& [name, app] : generalAppMap_) {
        if (app->IsAlive()) {
            App::TermRqdSubProc(name, app->pid_);
            App::SendSignal(SIGKILL, name, app->pid_);
        }
    }
}

}  // namespace ProcMgr
