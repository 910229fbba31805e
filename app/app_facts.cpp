#include "app/app_facts.h"

#include <tuple>

namespace ProcMgr::App {
namespace {

// The cores of a manifest, as AppSpec understands them.
std::vector<uint32_t> CoresOf(std::vector<uint32_t> cores) {
    if (!cores.empty() && cores.front() == AppSpec::AFFINITY_MARKER) {
        cores.clear();
    }
    return cores;
}

}  // namespace

AppFacts::AppFacts(const ApplicationManifest& manifest)
    : name(manifest.GetAppName()),
      policy(manifest.GetRestart()),
      priority(manifest.GetStartupPriority()),
      isReporting(manifest.GetIsReporting()),
      hasHeartBeat(manifest.GetHeartBeatSwitch()),
      execPath(manifest.GetBinPath()),
      uid(manifest.GetUid()),
      gid(manifest.GetGid()),
      depends(manifest.GetDependList()),
      groups(GroupsOf(manifest)),
      cores(CoresOf(manifest.GetCoreAffinity())) {}

AppFacts::AppFacts(const AppSpec& spec, const std::string& ownerName)
    : name(spec.appName_),
      owner(ownerName),
      policy(spec.restartPolicy_),
      priority(spec.startupPriority_),
      hasHeartBeat(spec.heartBeatSwitch_),
      execPath(spec.execPath_),
      uid(spec.uid_),
      gid(spec.gid_),
      groups(spec.groups_),
      cores(spec.coreAffinity_) {}

bool AppFacts::IsOf(const AppSpec& spec, const std::string& ownerName) const {
    return std::tie(owner, policy, priority, hasHeartBeat, execPath, uid, gid, *groups, cores) ==
           std::tie(ownerName, spec.restartPolicy_, spec.startupPriority_, spec.heartBeatSwitch_,
                    spec.execPath_, spec.uid_, spec.gid_, *spec.groups_, spec.coreAffinity_);
}

}  // namespace ProcMgr::App
