#include "app/general_app_info.h"

#include <chrono>

#include "app/exit_status.h"
#include "app/process_launcher.h"
#include "app/scheduler_workers.h"
#include "app/signals.h"
#include "main/common/log.h"

namespace ProcMgr::App {

GeneralAppInfo::GeneralAppInfo(const std::string& appName, const ApplicationManifest& manifest,
                               const std::string& owner)
    : AppInfo(manifest, appName, owner), entry_(std::make_shared<const AppSpec>(*this)) {}

void GeneralAppInfo::Refresh(const ApplicationManifest& manifest) {
    entry_ = std::make_shared<const AppSpec>(manifest, appName_);
}

std::optional<AppSpec> GeneralAppInfo::MakeStart(
    const std::vector<std::string>& argv,
    const std::map<int, std::vector<std::string>>& dynamicPara) const {
    std::optional<AppSpec> spec = *entry_;
    return spec->UpdateDynamicPara(argv, dynamicPara) ? spec : std::nullopt;
}

void GeneralAppInfo::BeginTermination(SteadyTime now) {
    termStartTime_ = now;
    killSent_ = false;
    termTimeout_ = entry_->termTimeout_;
    forceTerm_ = entry_->forceTerm_;
}

void GeneralAppInfo::TakeNext() {
    if (next_) {
        savedForceTerm_ = next_->forceTerm_;
        TakeSpec(std::move(*next_));
        next_.reset();
    }
}

bool GeneralAppInfo::StartProcess(ProcessLauncher& launcher, LaunchPlan& plan) {
    return launcher.Fork(*this, plan) >= 0;
}

ProcessState GeneralAppInfo::CheckState(SteadyTime now) {
    if (pid_ < 1) {
        ProcMgrLog(LOG_ERR, "CheckState : pid <= 0, don't call waitpid(), currentState=%d",
                   static_cast<int>(GetState()));
        return GetState();
    }
    exitedWith125_ = false;
    if (GetState() == TERMINATED) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Process %s got unexpected TERMINATED state",
                   appName_.c_str());
        return TERMINATED;
    }
    reportType_ = INVALID_INTERMEDIATE_STATE;
    switch (GetState()) {
        case STARTING:
            return CheckStarting();
        case RUNNING:
            return CheckRunning();
        case TERMINATING:
            return CheckTerminating(now);
        case RESTARTING:
            return restartStarted_ ? CheckRestartDone() : CheckRestartWait(now);
        default:
            ProcMgrLog(LOG_ERR, "PROCMGR : Process %s got unexpected state=%d", appName_.c_str(),
                       static_cast<int>(GetState()));
            return GetState();
    }
}

int64_t GeneralAppInfo::MillisecondsSinceTerm(SteadyTime now) const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(now - termStartTime_).count();
}

void GeneralAppInfo::Kill() {
    TermRqdSubProc(appName_, pid_);
    SendSignal(SIGKILL, appName_, pid_);
    killSent_ = true;
}

ProcessState GeneralAppInfo::CheckTerminating(SteadyTime now) {
    const int64_t elapsed = MillisecondsSinceTerm(now);
    if (exitStatusSet_) {
        ProcMgrLog(LOG_INFO, "PROCMGR : TERMINATING to TERMINATED. (appName=%s,pid=%d,cost=%ld ms)",
                   appName_.c_str(), pid_, static_cast<long>(elapsed));
        LogExitStatus(exitStatus_, appName_, pid_);
        killSent_ = false;
        reportType_ = TERMINATED_NORMAL_EXIT;
        return ChangeState(TERMINATED, ChangeReason::EXITED);
    }
    if (killSent_ || termTimeout_ > elapsed) {
        return GetState();
    }
    if (forceTerm_) {
        ProcMgrLog(LOG_INFO,
                   "PROCMGR : term timeout and forceTerm is true, so kill appName=%s, "
                   "pid=%d,TERMINATING to TERMINATED",
                   appName_.c_str(), pid_);
        Kill();
        return GetState();
    }
    ProcMgrLog(LOG_INFO,
               "PROCMGR : term timeout and forceTerm is false, so not kill appName=%s, "
               "pid=%dTERMINATING to RUNNING",
               appName_.c_str(), pid_);
    reportType_ = RUNNING_ABNORMAL_TERM_TIMEOUT;
    return ChangeState(RUNNING, ChangeReason::TERM_TIMED_OUT);
}

// The old process is being stopped. A restart always ends in a kill after the time-out. The
// record's container starts the new process when it is due.
ProcessState GeneralAppInfo::CheckRestartWait(SteadyTime now) {
    if (!exitStatusSet_ && !killSent_ && MillisecondsSinceTerm(now) >= termTimeout_) {
        Kill();
    }
    return GetState();
}

ProcessState GeneralAppInfo::FinishRestart(bool isStarted) {
    killSent_ = false;
    if (isStarted) {
        forceTerm_ = savedForceTerm_;
        restartStarted_ = true;
        return GetState();
    }
    reportType_ = TERMINATED_ABNORMAL_EXIT;
    ProcMgrLog(LOG_INFO, "PROCMGR : RESTARTING to TERMINATED appName=%s, pid=%d", appName_.c_str(),
               pid_);
    return ChangeState(TERMINATED, ChangeReason::RESTART_FAILED);
}

// The new process has been forked.
ProcessState GeneralAppInfo::CheckRestartDone() {
    if (exitStatusSet_) {
        ProcMgrLog(LOG_INFO, "PROCMGR : RESTARTING to TERMINATED appName=%s, pid=%d",
                   appName_.c_str(), pid_);
        ClassifyExit(exitStatus_);
        return ChangeState(TERMINATED, ChangeReason::EXITED);
    }
    reportType_ = RUNNING_NORMAL_RESTART;
    return ChangeState(RUNNING, ChangeReason::FOUND_RUNNING);
}

}  // namespace ProcMgr::App
