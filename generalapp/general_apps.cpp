#include "generalapp/general_apps.h"

#include <algorithm>
#include <chrono>

#include "app/sensor_node_event_reporter.h"
#include "main/constants.h"
#include "main/log.h"

namespace ProcMgr {

using App::GeneralAppInfo;
using App::SensorNodeEventReporter;
using Message::AppStateInfo;

namespace {

constexpr uint32_t RESULT_NONE = 0;
constexpr uint32_t RESULT_INPUT_OUTPUT_ERROR = 1;
// How long a killed process may take to go, in the kernel's hands, before it is left behind.
constexpr std::chrono::seconds KILL_PATIENCE{5};

bool NeedsCheck(const GeneralAppInfo& app, CheckPass pass, SteadyTime now) {
    if (pass == CheckPass::EXTRA) {
        return app.exitStatusSet_ && app.state_ != TERMINATED &&
               now - app.startTime_ > CHECK_PERIOD;
    }
    return app.state_ != TERMINATED && !app.IsSettled();
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
                         const App::StateReports& reports, const StartupConfig& config,
                         OwnerView view)
    : launcher_(launcher),
      checks_(checks),
      reports_(reports),
      config_(config),
      view_(std::move(view)) {}

bool GeneralApps::SetExitStatus(int32_t pid, int32_t status) {
    const std::lock_guard lock(mutex_);
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
    exited_.notify_all();
    return true;
}

void GeneralApps::CheckGeneralApps(CheckPass pass) {
    const std::lock_guard order(reportOrder_);
    {
        const std::lock_guard lock(mutex_);
        if (outbox_.empty() && !heldBack_.empty() && view_.isZornReady()) {
            outbox_.swap(heldBack_);
        }
        const SteadyTime now = std::chrono::steady_clock::now();
        for (const auto& [name, app] : generalAppMap_) {
            if (NeedsCheck(*app, pass, now)) {
                CheckOne(*app, now);
            }
            if (NeedsCheck(*app, CheckPass::PERIODIC, now)) {
                checks_.Request();
            }
        }
    }
    SendOutbox();
}

void GeneralApps::SendOutbox() {
    ReportGeneralAppChanges(outbox_);
    outbox_.clear();
}

void GeneralApps::HoldBack(const AppStateInfo& item) {
    std::erase_if(heldBack_,
                  [&](const auto& change) { return change.second.appName == item.appName; });
    heldBack_.emplace_back(PROC_ZORNMGR, item);
}

void GeneralApps::CheckOne(GeneralAppInfo& app, SteadyTime now) {
    // What needs memory comes first: once the state has changed the report must not get lost.
    const bool isPriority = app.IsPriority();
    const bool isHeldBack = isPriority && !view_.isZornReady();
    outbox_.reserve(outbox_.size() + 1);
    std::string owner = isPriority ? PROC_ZORNMGR : app.owner_;
    AppStateInfo item = App::MakeStateInfo(app, app.reportType_, RESULT_NONE);
    app.state_ = app.CheckState(now, launcher_);
    if (app.reportType_ == INVALID_INTERMEDIATE_STATE) {
        return;
    }
    ProcMgrLog(LOG_INFO,
               "PROCMGR: CheckThread : generalAppName=%s, pid=%d, state=%s get statechange",
               app.appName_.c_str(), app.pid_, GetProcessStateStr(app.state_).c_str());
    item.pid = static_cast<uint32_t>(app.pid_);
    item.reportType = app.reportType_;
    item.result = ResultOf(app);
    if (isHeldBack) {
        HoldBack(item);
    } else {
        outbox_.emplace_back(std::move(owner), std::move(item));
    }
    SensorNodeEventReporter& faults = SensorNodeEventReporter::GetInstance();
    if (app.reportType_ == TERMINATED_ABNORMAL_EXIT) {
        faults.Raise(App::GENERAL_APP_NODE, app.appName_, App::EVENT_START_FAILED, app.nodeType_);
    } else if (app.reportType_ == RUNNING_NORMAL_START ||
               app.reportType_ == RUNNING_NORMAL_RESTART) {
        faults.Withdraw(App::GENERAL_APP_NODE, app.appName_, App::EVENT_START_FAILED);
    }
}

void GeneralApps::ReportGeneralAppChanges(const ChangeList& changes) const {
    if (changes.empty()) {
        return;
    }
    std::vector<AppStateInfo> all;
    for (const auto& [owner, item] : changes) {
        all.push_back(item);
    }
    if (!reports_.ReportAppState(all, PROC_ZORNMGR)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : CheckThread : report general apps' changes to ZORN failed");
    }
    for (const std::string& name : view_.getOwners()) {
        if (name == PROC_ZORNMGR) {
            continue;
        }
        std::vector<AppStateInfo> own;
        for (const auto& [owner, item] : changes) {
            if (owner == name) {
                own.push_back(item);
            }
        }
        if (!reports_.ReportAppState(own, name)) {
            ProcMgrLog(LOG_ERR,
                       "PROCMGR : CheckThread : report general apps' changes to owner %s failed",
                       name.c_str());
        }
    }
}

void GeneralApps::ReportHeldBack() {
    const std::lock_guard order(reportOrder_);
    {
        const std::lock_guard lock(mutex_);
        outbox_.insert(outbox_.end(), heldBack_.begin(), heldBack_.end());
        heldBack_.clear();
    }
    SendOutbox();
}

void GeneralApps::RemoveTerminatedApps() {
    const std::lock_guard lock(mutex_);
    std::erase_if(generalAppMap_, [](const auto& entry) {
        if (entry.second->state_ != TERMINATED) {
            return false;
        }
        ProcMgrLog(LOG_INFO, "PROCMGR : Process %s removed from the list of generalAppMap_",
                   entry.first.c_str());
        return true;
    });
}

bool GeneralApps::Visit(const App::RecordVisitor& visitor) {
    const std::lock_guard lock(mutex_);
    return std::any_of(generalAppMap_.begin(), generalAppMap_.end(),
                       [&](const auto& entry) { return visitor(*entry.second); });
}

std::vector<AppStateInfo> GeneralApps::GetStates() {
    const std::lock_guard lock(mutex_);
    std::vector<AppStateInfo> states;
    for (const auto& [name, app] : generalAppMap_) {
        states.push_back(App::MakeStateInfo(*app, App::PresentStateOf(*app), RESULT_NONE));
    }
    return states;
}

bool GeneralApps::HasLive() const {
    return std::any_of(generalAppMap_.begin(), generalAppMap_.end(),
                       [](const auto& entry) { return entry.second->IsAlive(); });
}

void GeneralApps::StopAll() {
    std::unique_lock lock(mutex_);
    isStopping_ = true;
    const SteadyTime now = std::chrono::steady_clock::now();
    SteadyTime end = now;
    for (const auto& [name, app] : generalAppMap_) {
        // One whose old process has ended would be started again by the next pass.
        if (!app->IsAlive() && app->state_ != RESTARTING) {
            continue;
        }
        app->TermProcess();
        app->state_ = TERMINATING;
        app->SetTermStartTime(now);
        app->killSent_ = false;
        // The state check kills it then, whatever the manifest says about other occasions.
        app->forceTerm_ = true;
        end = std::max(end, now + std::chrono::milliseconds(app->termTimeout_));
    }
    checks_.Request();
    if (!exited_.wait_until(lock, end + KILL_PATIENCE, [this] { return !HasLive(); })) {
        ProcMgrLog(LOG_ERR, "PROCMGR : some general apps do not end, they are left behind");
    }
}

}  // namespace ProcMgr
