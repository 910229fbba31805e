#include "app/app_info.h"

#include <sched.h>

#include <array>

#include "app/exit_status.h"
#include "app/signals.h"
#include "main/constants.h"
#include "main/log.h"
#include "main/proc_mgr_env.h"

namespace ProcMgr::App {
namespace {

constexpr int PRIORITY_MAX = 99;
constexpr uint32_t AFFINITY_MARKER = 255;
// Exit code of a child whose execv failed with an input/output error.
constexpr int EXIT_INPUT_OUTPUT_ERROR = 125;

constexpr std::array SYSTEM_POLICIES = {SCHED_OTHER, SCHED_BATCH, SCHED_IDLE, SCHED_FIFO, SCHED_RR};
static_assert(SYSTEM_POLICIES.size() == static_cast<size_t>(SchedPolicyType::NOT_SET));

// A real-time priority of 1 to 99; -1 for any other text. Only a non-digit is worth a log line.
int ParsePriority(const std::string& appName, const std::string& text) {
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            ProcMgrLog(LOG_INFO, "PROCMGR : %s, set_rt_prio has invalid char=%s", appName.c_str(),
                       text.c_str());
            return -1;
        }
        value = value * 10 + (c - '0');
        if (value > PRIORITY_MAX) {
            return -1;
        }
    }
    return value == 0 ? -1 : value;
}

SchedPolicyType ParsePolicy(const std::string& text) {
    if (text == "SCHED_FIFO") {
        return SchedPolicyType::FIFO;
    }
    return text == "SCHED_RR" ? SchedPolicyType::ROUND_ROBIN : SchedPolicyType::NOT_SET;
}

}  // namespace

int ToSystemPolicy(SchedPolicyType policy) {
    const auto code = static_cast<size_t>(policy);
    return code < SYSTEM_POLICIES.size() ? SYSTEM_POLICIES[code] : SCHED_OTHER;
}

AppInfo::AppInfo(const ApplicationManifest& manifest, const std::string& appName,
                 const std::string& owner)
    : appName_(appName),
      uid_(manifest.GetUid()),
      gid_(manifest.GetGid()),
      coreAffinity_(manifest.GetCoreAffinity()),
      resGroupName_(manifest.GetResGroupName()),
      execPath_(manifest.GetBinPath()),
      arguments_(manifest.GetArguments()),
      envs_(manifest.GetEnvArgv()),
      termTimeout_(manifest.GetTermTimeOut()),
      home_(ProcMgrEnv::GetInstance().GetHome()),
      securityCon_(manifest.GetSecurityCon()),
      cpuset_(manifest.GetCpuset()),
      restartPolicy_(manifest.GetRestart()),
      owner_(owner),
      nodeType_(manifest.GetNodeType()),
      startupPriority_(manifest.GetStartupPriority()),
      isDelayCoreAffinity_(manifest.GetIsDelayCoreAffinity()),
      vfId_(manifest.GetVfId()),
      isDynamicPara_(manifest.GetIsDynamicPara()),
      blkioGroupName_(manifest.GetBlkioGroupName()),
      cgroupPath_(manifest.GetCGroupPath()),
      numaType_(manifest.GetNumaType()) {
    ApplyScheduling(manifest);
}

void AppInfo::SetExitStatus(int32_t status) {
    exitStatus_ = status;
    exitStatusSet_ = true;
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

void AppInfo::ApplyScheduling(const ApplicationManifest& manifest) {
    ApplyRealTime(manifest);
    if (!coreAffinity_.empty() && coreAffinity_.front() == AFFINITY_MARKER) {
        coreAffinity_.clear();
        schedPolicy_ = SchedPolicyType::FIFO;
        rtPriority_ = PRIORITY_MAX;
        ProcMgrLog(LOG_INFO, "PROCMGR : %s, update schedPolicy to SCHED_FIFO", appName_.c_str());
    }
    if (coreAffinity_.empty()) {
        isDelayCoreAffinity_ = false;
    }
}

void AppInfo::ApplyRealTime(const ApplicationManifest& manifest) {
    rtEnable_ = false;
    schedPolicy_ = SchedPolicyType::NOT_SET;
    rtPriority_ = -1;
    const std::string text = manifest.GetSetRtPrio();
    if (text.empty() || text == "false") {
        return;
    }
    if (text == "true") {
        rtEnable_ = true;
        return;
    }
    const int priority = ParsePriority(appName_, text);
    const SchedPolicyType policy = ParsePolicy(manifest.GetSetRtType());
    if (priority < 0 || policy == SchedPolicyType::NOT_SET) {
        return;
    }
    rtEnable_ = true;
    schedPolicy_ = policy;
    rtPriority_ = priority;
    ProcMgrLog(LOG_INFO, "PROCMGR : %s, rtPrio=%d, rtPolicy=%s", appName_.c_str(), priority,
               manifest.GetSetRtType().c_str());
}

ProcessState AppInfo::CheckStarting() {
    if (exitStatusSet_) {
        ProcMgrLog(LOG_INFO, "PROCMGR : STARTING to TERMINATED appName=%s, pid=%d",
                   appName_.c_str(), pid_);
        ClassifyExit(exitStatus_);
        return TERMINATED;
    }
    if (isReporting_) {
        return STARTING;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : STARTING to RUNNING appName=%s, pid=%d", appName_.c_str(),
               pid_);
    reportType_ = RUNNING_NORMAL_START;
    return RUNNING;
}

ProcessState AppInfo::CheckRunning() {
    if (!exitStatusSet_) {
        return RUNNING;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : RUNNING to TERMINATED appName=%s, pid=%d", appName_.c_str(),
               pid_);
    ClassifyExit(exitStatus_);
    return TERMINATED;
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
