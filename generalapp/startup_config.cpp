#include "generalapp/startup_config.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <utility>

#include "app/app_spec.h"
#include "main/common/log.h"
#include "main/common/paths.h"

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

StartupConfig::Source StartupConfig::MakeSource(const std::string& path) {
    Source source;
    source.spelled = std::filesystem::path(path).lexically_normal().string();
    source.resolved = source.spelled;
    StandardizationPath(path, source.resolved);
    return source;
}

uint32_t StartupConfig::Load(const std::string& path, const MatchData& matchData, bool isReload) {
    MayWait("the file system");
    std::vector<ApplicationManifest> manifests;
    std::set<std::string> scratch;
    // A new parser, because the parser of base start-up keeps the manifests of the base services.
    if (ParseAndDepend().ParseYaml(0, path, manifests, scratch) != 0) {
        ProcMgrLog(LOG_ERR, "process-manager LoadStartCfgInfo=%s failed", path.c_str());
        return FILE_UNUSABLE;
    }
    Source loaded = MakeSource(path);
    const LockGuard lock(mutex_);
    for (const Source& source : sources_) {
        if (!isReload && source.IsOf(loaded)) {
            loaded.apps = source.apps;
        }
    }
    for (const ApplicationManifest& manifest : manifests) {
        if (manifest.GetManifestList() == ManifestList::APPLICATIONS &&
            IsSelected(manifest, matchData)) {
            loaded.apps.insert_or_assign(manifest.GetAppName(), manifest);
        }
    }
    sources_.reserve(sources_.size() + 1);
    std::erase_if(sources_, [&](const Source& source) { return source.IsOf(loaded); });
    sources_.push_back(std::move(loaded));
    ++revision_;
    return OK;
}

std::optional<ApplicationManifest> StartupConfig::Find(const std::string& name) const {
    const LockGuard lock(mutex_);
    for (auto source = sources_.rbegin(); source != sources_.rend(); ++source) {
        const auto entry = source->apps.find(name);
        if (entry != source->apps.end()) {
            return entry->second;
        }
    }
    return std::nullopt;
}

std::vector<ApplicationManifest> StartupConfig::GetAfter(const std::string& last,
                                                         size_t count) const {
    std::map<std::string, ApplicationManifest> byName;
    {
        const LockGuard lock(mutex_);
        for (const Source& source : sources_) {
            auto entry = source.apps.upper_bound(last);
            for (size_t i = 0; i < count && entry != source.apps.end(); ++i, ++entry) {
                byName.insert_or_assign(entry->first, entry->second);
            }
        }
    }
    std::vector<ApplicationManifest> apps;
    for (auto entry = byName.begin(); entry != byName.end() && apps.size() < count; ++entry) {
        apps.push_back(std::move(entry->second));
    }
    return apps;
}

std::vector<ApplicationManifest> StartupConfig::GetPriorityApps(const std::string& path) const {
    const Source wanted = path.empty() ? Source() : MakeSource(path);
    std::map<std::string, ApplicationManifest> byName;
    {
        const LockGuard lock(mutex_);
        for (const Source& source : sources_) {
            if (!path.empty() && !source.IsOf(wanted)) {
                continue;
            }
            for (const auto& [name, manifest] : source.apps) {
                byName.insert_or_assign(name, manifest);
            }
        }
    }
    std::vector<ApplicationManifest> apps;
    for (const auto& [name, manifest] : byName) {
        if (manifest.GetStartupPriority() != App::AppSpec::NO_PRIORITY) {
            apps.push_back(manifest);
        }
    }
    // Stable, because the map has sorted them by name.
    std::stable_sort(apps.begin(), apps.end(), [](const auto& one, const auto& other) {
        return one.GetStartupPriority() < other.GetStartupPriority();
    });
    return apps;
}

}  // namespace ProcMgr
