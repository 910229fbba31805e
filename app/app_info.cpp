#include "app/app_info.h"

#include <chrono>

#include "app/app_spec.h"
#include "app/exit_status.h"
#include "app/signals.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr::App {
namespace {

// The exit code of a child in which execv failed with an input/output error.
constexpr int EXIT_INPUT_OUTPUT_ERROR = 125;

}  // namespace

AppInfo::AppInfo(const ApplicationManifest& manifest, const std::string& appName,
                 const std::string& owner)
    : AppSpec(manifest, appName), home_(ProcMgrEnv::GetInstance().GetHome()), owner_(owner) {}

ProcessState AppInfo::ChangeState(ProcessState to, ChangeReason reason) {
    if (!IsTransition({state_, to, reason})) {
        ProcMgrLog(LOG_ERR, "PROCMGR : unexpected change of app=%s from %s to %s, reason=%d",
                   appName_.c_str(), GetProcessStateStr(state_).c_str(),
                   GetProcessStateStr(to).c_str(), static_cast<int>(reason));
    }
    if (history_ != nullptr) {
        history_->NoteChange({state_, to, reason}, pid_, exitStatus_);
    }
    state_ = to;
    return to;
}

void AppInfo::SetExitStatus(int32_t status) {
    exitStatus_ = status;
    exitStatusSet_ = true;
    if (history_ != nullptr) {
        history_->NoteExit(pid_, status, std::chrono::steady_clock::now());
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : SetExitStatus %s, pid=%d", appName_.c_str(), pid_);
}

bool AppInfo::TermProcess() const {
    if (pid_ < 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : TermProcess failed: the pid=%d is invalid", pid_);
        return false;
    }
    if (!exitStatusSet_) {
        SendSignal(SIGTERM, appName_, pid_);
    }
    return true;
}

ProcessState AppInfo::CheckStarting() {
    if (exitStatusSet_) {
        ProcMgrLog(LOG_INFO, "PROCMGR : STARTING to TERMINATED appName=%s, pid=%d",
                   appName_.c_str(), pid_);
        ClassifyExit(exitStatus_);
        return ChangeState(TERMINATED, ChangeReason::EXITED);
    }
    if (isReporting_) {
        return state_;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : STARTING to RUNNING appName=%s, pid=%d", appName_.c_str(),
               pid_);
    reportType_ = RUNNING_NORMAL_START;
    return ChangeState(RUNNING, ChangeReason::FOUND_RUNNING);
}

ProcessState AppInfo::CheckRunning() {
    if (!exitStatusSet_) {
        return state_;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : RUNNING to TERMINATED appName=%s, pid=%d", appName_.c_str(),
               pid_);
    ClassifyExit(exitStatus_);
    return ChangeState(TERMINATED, ChangeReason::EXITED);
}

void AppInfo::ClassifyExit(int32_t status) {
    LogExitStatus(status, appName_, pid_);
    exitedWith125_ = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_INPUT_OUTPUT_ERROR;
    const bool isFinished = restartPolicy_ == RESTART_ON_UNTIL_SUCCEED && owner_ == PROC_ZORNMGR &&
                            (static_cast<uint32_t>(status) & 0xFFFFU) == 0;
    if (isFinished) {
        reportType_ = TERMINATED_NORMAL_EXIT;
        ProcMgrLog(LOG_INFO, "PROCMGR : non resident app=%s normal exit", appName_.c_str());
        return;
    }
    reportType_ = TERMINATED_ABNORMAL_EXIT;
}

}  // namespace ProcMgr::App
