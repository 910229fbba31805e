#include <algorithm>

#include "app/app_info.h"
#include "app/exit_status.h"
#include "app/process_launcher.h"
#include "app/signals.h"
#include "main/log.h"

namespace ProcMgr::App {

GeneralAppInfo::GeneralAppInfo(const std::string& appName, const ApplicationManifest& manifest,
                               const std::string& owner)
    : AppInfo(manifest, appName, owner),
      nice_(manifest.GetNice()),
      forceTerm_(manifest.GetIsForceTerm()),
      sharepoolGroups_(manifest.GetSharepoolGroups()),
      heartBeatSwitch_(manifest.GetHeartBeatSwitch()) {
    DetectDynamicParameters(manifest);
}

void GeneralAppInfo::Refresh(const ApplicationManifest& manifest, const std::string& appName) {
    appName_ = appName;
    coreAffinity_ = manifest.GetCoreAffinity();
    resGroupName_ = manifest.GetResGroupName();
    execPath_ = manifest.GetBinPath();
    arguments_ = manifest.GetArguments();
    uid_ = manifest.GetUid();
    gid_ = manifest.GetGid();
    nice_ = manifest.GetNice();
    envs_ = manifest.GetEnvArgv();
    forceTerm_ = manifest.GetIsForceTerm();
    termTimeout_ = manifest.GetTermTimeOut();
    sharepoolGroups_ = manifest.GetSharepoolGroups();
    securityCon_ = manifest.GetSecurityCon();
    cpuset_ = manifest.GetCpuset();
    heartBeatSwitch_ = manifest.GetHeartBeatSwitch();
    vfId_ = manifest.GetVfId();
    blkioGroupName_ = manifest.GetBlkioGroupName();
    cgroupPath_ = manifest.GetCGroupPath();
    ApplyScheduling(manifest);
}

bool GeneralAppInfo::StartProcess(ProcessLauncher& launcher) {
    return launcher.Launch(*this) >= 0;
}

void GeneralAppInfo::DetectDynamicParameters(const ApplicationManifest& manifest) {
    dynamicExecPath_ = ParseAndDepend::IsDynamicPara(execPath_);
    execPathPattern_ = execPath_;
    dynamicArguments_ =
        std::any_of(arguments_.begin(), arguments_.end(), ParseAndDepend::IsDynamicPara);
    envPatterns_ = envs_;
    vfIdPattern_ = manifest.GetVfIdPattern();
    dynamicVfId_ = ParseAndDepend::IsDynamicPara(vfIdPattern_);
}

ProcessState GeneralAppInfo::CheckState(SteadyTime now, ProcessLauncher& launcher) {
    if (pid_ < 1) {
        ProcMgrLog(LOG_ERR, "CheckState : pid <= 0, don't call waitpid(), currentState=%d",
                   static_cast<int>(state_));
        return state_;
    }
    exitedWith125_ = false;
    if (state_ == TERMINATED) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Process %s got unexpected TERMINATED state",
                   appName_.c_str());
        return TERMINATED;
    }
    reportType_ = INVALID_INTERMEDIATE_STATE;
    switch (state_) {
        case STARTING:
            return CheckStarting();
        case RUNNING:
            return CheckRunning();
        case TERMINATING:
            return CheckTerminating(now);
        case RESTARTING:
            return CheckRestarting(now, launcher);
        default:
            ProcMgrLog(LOG_ERR, "PROCMGR : Process %s got unexpected state=%d", appName_.c_str(),
                       static_cast<int>(state_));
            return state_;
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
        return TERMINATED;
    }
    if (killSent_ || termTimeout_ > elapsed) {
        return TERMINATING;
    }
    if (forceTerm_) {
        ProcMgrLog(LOG_INFO,
                   "PROCMGR : term timeout and forceTerm is true, so kill appName=%s, "
                   "pid=%d,TERMINATING to TERMINATED",
                   appName_.c_str(), pid_);
        Kill();
        return TERMINATING;
    }
    ProcMgrLog(LOG_INFO,
               "PROCMGR : term timeout and forceTerm is false, so not kill appName=%s, "
               "pid=%dTERMINATING to RUNNING",
               appName_.c_str(), pid_);
    reportType_ = RUNNING_ABNORMAL_TERM_TIMEOUT;
    return RUNNING;
}

ProcessState GeneralAppInfo::CheckRestarting(SteadyTime now, ProcessLauncher& launcher) {
    return restartStarted_ ? CheckRestartDone() : CheckRestartWait(now, launcher);
}

// The old process is being stopped. A restart always ends in a kill after the time-out.
ProcessState GeneralAppInfo::CheckRestartWait(SteadyTime now, ProcessLauncher& launcher) {
    if (!exitStatusSet_) {
        if (!killSent_ && MillisecondsSinceTerm(now) >= termTimeout_) {
            Kill();
        }
        return RESTARTING;
    }
    killSent_ = false;
    if (StartProcess(launcher)) {
        forceTerm_ = savedForceTerm_;
        restartStarted_ = true;
        return RESTARTING;
    }
    reportType_ = TERMINATED_ABNORMAL_EXIT;
    ProcMgrLog(LOG_INFO, "PROCMGR : RESTARTING to TERMINATED appName=%s, pid=%d", appName_.c_str(),
               pid_);
    return TERMINATED;
}

// The new process has been forked.
ProcessState GeneralAppInfo::CheckRestartDone() {
    if (exitStatusSet_) {
        ProcMgrLog(LOG_INFO, "PROCMGR : RESTARTING to TERMINATED appName=%s, pid=%d",
                   appName_.c_str(), pid_);
        ClassifyExit(exitStatus_);
        return TERMINATED;
    }
    reportType_ = RUNNING_NORMAL_RESTART;
    return RUNNING;
}

}  // namespace ProcMgr::App
