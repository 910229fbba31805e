// The supervision of the general applications by check passes: state checks, reports and faults
// of the changes, restarts, and the removal of records.
#include <algorithm>
#include <chrono>
#include <utility>

#include "generalapp/general_apps.h"
#include "main/common/log.h"

namespace ProcMgr {

using App::GeneralAppInfo;

namespace {

// The result field of a report.
constexpr uint32_t RESULT_NONE = 0;
constexpr uint32_t RESULT_INPUT_OUTPUT_ERROR = 1;

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

// The records in the order of their names.
std::vector<GeneralAppInfo*> Sorted(std::vector<GeneralAppInfo*> records) {
    std::sort(records.begin(), records.end(),
              [](const GeneralAppInfo* one, const GeneralAppInfo* other) {
                  return one->appName_ < other->appName_;
              });
    return records;
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

void GeneralApps::CheckGeneralApps(CheckPass pass) {
    std::vector<GeneralAppInfo> restarts = CheckStates(pass);
    reports_.Flush();
    for (GeneralAppInfo& copy : restarts) {
        BeginRestartEnded(copy);
    }
}

std::vector<GeneralAppInfo> GeneralApps::CheckStates(CheckPass pass) {
    std::vector<GeneralAppInfo> restarts;
    const LockGuard lock(mutex_);
    changeReports_.QueueHeldBackIfReady();
    const SteadyTime now = std::chrono::steady_clock::now();
    for (GeneralAppInfo* app : Sorted(due_.Begin(pass))) {
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
    changeReports_.QueueNoted();
    return restarts;
}

// When an exception is thrown before isLaunching_ is set, IsRestartDue() stays true and the next
// pass tries again.
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
        NoteLaunch(*record);
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
    due_.Add(*record);
    checks_.Request();
    // StopAll() may have moved the record to TERMINATING meanwhile.
    if (record->GetState() != RESTARTING) {
        return;
    }
    const bool isStarted = TryStart(*record, std::move(plan));
    record->FinishRestart(isStarted);
    if (!isStarted) {
        NoteChange(*record);
        changeReports_.QueueNoted();
    }
}

void GeneralApps::CheckOne(GeneralAppInfo& app, SteadyTime now) {
    changeReports_.ReserveForNote(app);
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
    changeReports_.Note(app, ResultOf(app));
    if (app.reportType_ == TERMINATED_ABNORMAL_EXIT) {
        RaiseStartFault(app);
    } else if (app.reportType_ == RUNNING_NORMAL_START ||
               app.reportType_ == RUNNING_NORMAL_RESTART) {
        faults_.Withdraw(App::GENERAL_APP_NODE, app.appName_, App::EVENT_START_FAILED);
    }
}

void GeneralApps::RemoveTerminatedApps(CheckPass pass) {
    const LockGuard lock(mutex_);
    const SteadyTime now = std::chrono::steady_clock::now();
    std::vector<Record> removed;
    std::vector<GeneralAppInfo*> due;
    for (GeneralAppInfo* app : Sorted(due_.GetPassed(pass))) {
        if (app->GetState() == TERMINATED && !app->isLaunching_) {
            removed.push_back(Find(app->appName_));
        } else if (NeedsCheck(*app, CheckPass::PERIODIC, now)) {
            due.push_back(app);
        }
    }
    if (pass == CheckPass::PERIODIC) {
        due_.Keep(due);
    }
    for (const Record& record : removed) {
        ProcMgrLog(LOG_INFO, "PROCMGR : Process %s removed from the list of generalAppMap_",
                   record->appName_.c_str());
        due_.Drop(*record);
        generalAppMap_.erase(record->appName_);
    }
}

}  // namespace ProcMgr
