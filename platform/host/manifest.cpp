#include "platform/manifest.h"

#include "platform/host/manifest_data.h"
#include "platform/manifest_output.h"

namespace ProcMgr {

ApplicationManifest::ApplicationManifest(std::shared_ptr<const ManifestData> data)
    : data_(std::move(data)) {}

ManifestList ApplicationManifest::GetManifestList() const {
    return data_->list;
}

std::string ApplicationManifest::GetAppName() const {
    return data_->name;
}

std::string ApplicationManifest::GetCfgPath() const {
    return data_->cfgPath;
}

uint32_t ApplicationManifest::GetUid() const {
    return data_->uid;
}

uint32_t ApplicationManifest::GetGid() const {
    return data_->gid;
}

std::vector<uint32_t> ApplicationManifest::GetCoreAffinity() const {
    return data_->coreAffinity;
}

std::string ApplicationManifest::GetResGroupName() const {
    return data_->resourceGroup;
}

std::string ApplicationManifest::GetBlkioGroupName() const {
    return data_->blkioGroup;
}

std::string ApplicationManifest::GetCpuset() const {
    return data_->cpuset;
}

std::map<std::string, std::string> ApplicationManifest::GetCGroupPath() const {
    return data_->cgroups;
}

std::string ApplicationManifest::GetBinPath() const {
    return data_->bin;
}

std::vector<std::string> ApplicationManifest::GetArguments() const {
    return data_->args;
}

std::map<std::string, std::string> ApplicationManifest::GetEnvArgv() const {
    return data_->env;
}

uint32_t ApplicationManifest::GetTermTimeOut() const {
    return data_->termTimeoutMs;
}

std::string ApplicationManifest::GetSecurityCon() const {
    return data_->securityContext;
}

std::string ApplicationManifest::GetRestart() const {
    return data_->restart;
}

uint32_t ApplicationManifest::GetNodeType() const {
    return data_->nodeType;
}

uint32_t ApplicationManifest::GetNumaType() const {
    return data_->numaType;
}

int32_t ApplicationManifest::GetStartupPriority() const {
    return data_->startupPriority;
}

bool ApplicationManifest::GetIsDelayCoreAffinity() const {
    return data_->delayCoreAffinity;
}

bool ApplicationManifest::GetIsDynamicPara() const {
    return data_->dynamic;
}

bool ApplicationManifest::GetIsForceTerm() const {
    return data_->forceTerm;
}

bool ApplicationManifest::GetIsReporting() const {
    return data_->reporting;
}

bool ApplicationManifest::GetHeartBeatSwitch() const {
    return data_->heartbeat;
}

int32_t ApplicationManifest::GetVfId() const {
    return data_->vfId;
}

std::string ApplicationManifest::GetVfIdPattern() const {
    return data_->vfIdPattern;
}

int32_t ApplicationManifest::GetNice() const {
    return data_->nice;
}

std::vector<std::pair<std::string, std::string>> ApplicationManifest::GetSharepoolGroups() const {
    return data_->sharepoolGroups;
}

std::set<std::string> ApplicationManifest::GetDependList() const {
    return data_->depends;
}

std::string ApplicationManifest::GetStartupEntryPath() const {
    return data_->startupEntry;
}

std::string ApplicationManifest::GetSetRtPrio() const {
    return data_->setRtPrio;
}

std::string ApplicationManifest::GetSetRtType() const {
    return data_->setRtType;
}

std::map<std::string, std::string> ApplicationManifest::GetMatchData() const {
    return data_->match;
}

// In this file and not in one of its own: a linker takes no member from an archive for a weak
// reference, but it takes this one for the functions above.
OutputConfig GetManifestOutput(const ApplicationManifest& manifest) {
    return manifest.data_->output;
}

}  // namespace ProcMgr
