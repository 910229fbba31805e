#include "app/base_app_info.h"

#include <chrono>

#include "app/app_spec.h"
#include "app/exit_status.h"
#include "app/process_launcher.h"
#include "main/common/log.h"

namespace ProcMgr::App {
namespace {

// The highest number of restarts within the period. A service that needs more is not restarted
// again.
constexpr uint32_t RESTARTS_MAX = 5;
constexpr std::chrono::milliseconds RESTART_PERIOD{60000};
// The period includes the whole of its last millisecond.
constexpr std::chrono::nanoseconds RESTART_LIMIT =
    RESTART_PERIOD + std::chrono::nanoseconds{999'999};

}  // namespace

BaseAppInfo::BaseAppInfo(const ApplicationManifest& manifest)
    : AppInfo(manifest, manifest.GetAppName(), std::string()) {
    isReporting_ = manifest.GetIsReporting();
}

bool BaseAppInfo::StartProcess(ProcessLauncher& launcher, LaunchPlan& plan) {
    if (launcher.Fork(*this, plan) < 0) {
        return false;
    }
    ChangeState(STARTING, ChangeReason::STARTED);
    isReady_ = false;
    return true;
}

ProcessState BaseAppInfo::CheckState() {
    exitedWith125_ = false;
    reportType_ = INVALID_INTERMEDIATE_STATE;
    if (pid_ < 1) {
        ProcMgrLog(LOG_ERR, "CheckState : pid <= 0, don't call waitpid(), currentState=%d",
                   static_cast<int>(GetState()));
        return GetState();
    }
    switch (GetState()) {
        case STARTING:
            return CheckStarting();
        case RUNNING:
            return CheckRunning();
        case TERMINATING:
            if (!exitStatusSet_) {
                return GetState();
            }
            ProcMgrLog(LOG_INFO, "PROCMGR : TERMINATING to TERMINATED appName=%s, pid=%d",
                       appName_.c_str(), pid_);
            LogExitStatus(exitStatus_, appName_, pid_);
            reportType_ = TERMINATED_NORMAL_EXIT;
            return ChangeState(TERMINATED, ChangeReason::EXITED);
        case TERMINATED:
            ProcMgrLog(LOG_ERR, "PROCMGR : Process %s got unexpected TERMINATED state",
                       appName_.c_str());
            reportType_ = TERMINATED_ABNORMAL_EXIT;
            return TERMINATED;
        default:
            ProcMgrLog(LOG_ERR, "PROCMGR : Process %s got unexpected state=%d", appName_.c_str(),
                       static_cast<int>(GetState()));
            return GetState();
    }
}

bool BaseAppInfo::IsRestartable() const {
    return restartPolicy_ == RESTART_ON_FAILURE || restartPolicy_ == RESTART_ON_FOREVER;
}

bool BaseAppInfo::NeedRestart(SteadyTime now) {
    if (restartPolicy_ == RESTART_ON_FOREVER) {
        return true;
    }
    if (restartPolicy_ != RESTART_ON_FAILURE) {
        return false;
    }
    if (restartTimes_.size() >= RESTARTS_MAX) {
        if (now - restartTimes_.front() <= RESTART_LIMIT) {
            ProcMgrLog(LOG_ERR, "PROCMGR : Process=%s has restart %u times in recent %ld ms.",
                       appName_.c_str(), RESTARTS_MAX, static_cast<long>(RESTART_PERIOD.count()));
            restartPolicy_ = RESTART_NO;
            return false;
        }
        restartTimes_.erase(restartTimes_.begin());
    }
    restartTimes_.push_back(now);
    return true;
}

}  // namespace ProcMgr::App
