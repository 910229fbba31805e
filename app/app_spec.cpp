#include "app/app_spec.h"

#include <sched.h>

#include <algorithm>
#include <array>
#include <utility>

#include "main/common/log.h"

namespace ProcMgr::App {
namespace {

constexpr int PRIORITY_MAX = 99;

constexpr std::array SYSTEM_POLICIES = {SCHED_OTHER, SCHED_BATCH, SCHED_IDLE, SCHED_FIFO, SCHED_RR};
static_assert(SYSTEM_POLICIES.size() == static_cast<size_t>(SchedPolicyType::NOT_SET));

// The real-time priority of a text, 1 to 99; -1 for any other text. Only a text with a character
// that is not a digit is logged.
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

OutputConfig OutputOf(const ApplicationManifest& manifest) {
    return GetManifestOutput == nullptr ? OutputConfig() : GetManifestOutput(manifest);
}

std::shared_ptr<const AppGroups> GroupsOf(const ApplicationManifest& manifest) {
    static const auto NONE = std::make_shared<const AppGroups>();
    AppGroups groups{manifest.GetResGroupName(), manifest.GetCpuset(), manifest.GetBlkioGroupName(),
                     manifest.GetCGroupPath()};
    return groups == *NONE ? NONE : std::make_shared<const AppGroups>(std::move(groups));
}

AppSpec::AppSpec(const ApplicationManifest& manifest, const std::string& appName)
    : appName_(appName),
      uid_(manifest.GetUid()),
      gid_(manifest.GetGid()),
      coreAffinity_(manifest.GetCoreAffinity()),
      groups_(GroupsOf(manifest)),
      execPath_(manifest.GetBinPath()),
      arguments_(manifest.GetArguments()),
      envs_(manifest.GetEnvArgv()),
      termTimeout_(manifest.GetTermTimeOut()),
      securityCon_(manifest.GetSecurityCon()),
      restartPolicy_(manifest.GetRestart()),
      nodeType_(manifest.GetNodeType()),
      startupPriority_(manifest.GetStartupPriority()),
      isDelayCoreAffinity_(manifest.GetIsDelayCoreAffinity()),
      vfId_(manifest.GetVfId()),
      isDynamicPara_(manifest.GetIsDynamicPara()),
      numaType_(manifest.GetNumaType()),
      nice_(manifest.GetNice()),
      forceTerm_(manifest.GetIsForceTerm()),
      sharepoolGroups_(manifest.GetSharepoolGroups()),
      heartBeatSwitch_(manifest.GetHeartBeatSwitch()),
      dependList_(manifest.GetDependList()),
      startupEntryPath_(manifest.GetStartupEntryPath()),
      output_(OutputOf(manifest)) {
    ApplyScheduling(manifest);
    DetectDynamicParameters(manifest);
}

void AppSpec::ApplyScheduling(const ApplicationManifest& manifest) {
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

void AppSpec::ApplyRealTime(const ApplicationManifest& manifest) {
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

void AppSpec::DetectDynamicParameters(const ApplicationManifest& manifest) {
    if (!isDynamicPara_) {
        return;
    }
    DynamicPatterns patterns;
    patterns.dynamicExecPath_ = ParseAndDepend::IsDynamicPara(execPath_);
    patterns.execPathPattern_ = execPath_;
    patterns.dynamicArguments_ =
        std::any_of(arguments_.begin(), arguments_.end(), ParseAndDepend::IsDynamicPara);
    patterns.envPatterns_ = envs_;
    patterns.vfIdPattern_ = manifest.GetVfIdPattern();
    patterns.dynamicVfId_ = ParseAndDepend::IsDynamicPara(patterns.vfIdPattern_);
    patterns_ = std::make_shared<const DynamicPatterns>(std::move(patterns));
}

}  // namespace ProcMgr::App
