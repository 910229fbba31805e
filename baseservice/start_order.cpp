#include "baseservice/start_order.h"

#include <vector>

namespace ProcMgr {

bool IsStartedAtBoot(const ApplicationManifest& manifest, BootCommandLine& commandLine) {
    return manifest.GetManifestList() == ManifestList::SERVICES &&
           commandLine.IsEnabled(manifest.GetCfgPath());
}

std::set<std::string> NextBatch(const DependGraph& graph) {
    const std::vector<std::string> free = graph.GetNoDependVertices();
    return {free.begin(), free.end()};
}

}  // namespace ProcMgr
