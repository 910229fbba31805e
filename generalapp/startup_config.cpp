#include "generalapp/startup_config.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "app/app_info.h"
#include "main/log.h"
#include "main/system.h"

namespace ProcMgr {
namespace {

bool IsSelected(const ApplicationManifest& manifest, const StartupConfig::MatchData& matchData) {
    const auto wanted = manifest.GetMatchData();
    return std::all_of(wanted.begin(), wanted.end(), [&](const auto& pair) {
        const auto given = matchData.find(pair.first);
        return given != matchData.end() && given->second == pair.second;
    });
}

}  // namespace

uint32_t StartupConfig::LoadStartCfgInfo(const std::string& path, const MatchData& matchData) {
    return Load(path, matchData, false);
}

uint32_t StartupConfig::ReLoadStartCfgInfo(const std::string& path, const MatchData& matchData) {
    return Load(path, matchData, true);
}

uint32_t StartupConfig::Load(const std::string& path, const MatchData& matchData, bool isReload) {
    std::vector<ApplicationManifest> manifests;
    std::set<std::string> scratch;
    // A parser of its own: those of the base services' keeps to their dependencies.
    if (!IsRootsAlone(path) || ParseAndDepend().ParseYaml(0, path, manifests, scratch) != 0) {
        ProcMgrLog(LOG_ERR, "process-manager LoadStartCfgInfo=%s failed", path.c_str());
        return FILE_UNUSABLE;
    }
    const std::lock_guard lock(mutex_);
    if (isReload) {
        std::erase_if(entries_, [&](const auto& entry) { return entry.second.file == path; });
    }
    for (const ApplicationManifest& manifest : manifests) {
        if (manifest.GetManifestList() == ManifestList::APPLICATIONS &&
            IsSelected(manifest, matchData)) {
            entries_.insert_or_assign(manifest.GetAppName(), Entry{path, manifest});
        }
    }
    return OK;
}

std::optional<ApplicationManifest> StartupConfig::Find(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(name);
    return entry == entries_.end() ? std::nullopt : std::optional(entry->second.manifest);
}

std::vector<ApplicationManifest> StartupConfig::GetPriorityApps() const {
    std::vector<ApplicationManifest> apps;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [name, entry] : entries_) {
            if (entry.manifest.GetStartupPriority() != App::AppInfo::NO_PRIORITY) {
                apps.push_back(entry.manifest);
            }
        }
    }
    // The map has them by name.
    std::stable_sort(apps.begin(), apps.end(), [](const auto& one, const auto& other) {
        return one.GetStartupPriority() < other.GetStartupPriority();
    });
    return apps;
}

}  // namespace ProcMgr
