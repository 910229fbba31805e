// The storage of an ApplicationManifest, with the default of every key. The manifest loader fills
// it. Tests and tools that need a manifest without a file build one directly:
// ApplicationManifest(std::make_shared<const ManifestData>(data)).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/manifest.h"
#include "platform/manifest_output.h"

namespace ProcMgr {

struct ManifestData {
    ManifestList list = ManifestList::SERVICES;
    std::string cfgPath;

    std::string name;
    std::string bin;
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    uint32_t uid = 0;
    uint32_t gid = 0;
    std::set<std::string> depends;
    bool reporting = false;
    std::string restart = "no";
    uint32_t termTimeoutMs = 5000;
    bool forceTerm = true;
    int32_t nice = 0;
    std::vector<uint32_t> coreAffinity;
    bool delayCoreAffinity = false;
    std::string resourceGroup;
    std::string cpuset;
    std::string blkioGroup;
    std::map<std::string, std::string> cgroups;
    std::string setRtPrio;
    std::string setRtType;
    std::string securityContext;
    uint32_t nodeType = 0;
    uint32_t numaType = 0;
    int32_t startupPriority = -1;
    std::string startupEntry;
    bool heartbeat = false;
    std::vector<std::pair<std::string, std::string>> sharepoolGroups;
    int32_t vfId = -1;
    std::string vfIdPattern;
    bool dynamic = false;
    std::map<std::string, std::string> match;
    OutputConfig output;
};

}  // namespace ProcMgr
