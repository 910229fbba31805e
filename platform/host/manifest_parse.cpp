// The parsing of manifests in ParseAndDepend of platform/manifest.h, and its questions about
// patterns.
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/manifest_loader.h"
#include "platform/host/pattern.h"
#include "platform/manifest.h"
#include "wire/mutex.h"

namespace ProcMgr {
namespace {

using PlatformHost::ManifestLoad;
using PlatformHost::WriteDiagnostic;

// For one load. The daemon's log accepts a limited number of lines, so that many warnings could
// displace the lines after them.
constexpr size_t WARNINGS_MAX = 4;

PlatformHost::YamlFile ReadManifest(const std::string& path) {
    return PlatformHost::ReadYamlFile(path, PlatformHost::FileTrust::OWNER_ONLY);
}

// Keeps the first load of the process for the second: start-up parses its file for the priority
// applications and then again for the base services. The second load reads the files again, which
// takes much less time than to parse them, and returns the first one when nothing has changed.
class FirstLoad {
public:
    ManifestLoad Load(const std::string& path) {
        std::optional<Kept> kept;
        bool isFirst = false;
        {
            const Wire::LockGuard lock(mutex_);
            isFirst = !std::exchange(isOver_, true);
            kept.swap(kept_);
        }
        if (isFirst) {
            return LoadAndKeep(path);
        }
        if (kept && kept->path == path && IsUnchanged(*kept)) {
            return std::move(kept->load);
        }
        return PlatformHost::LoadManifests(path, ReadManifest);
    }

private:
    using Sources = std::map<std::string, PlatformHost::YamlFile>;
    struct Kept {
        std::string path;
        Sources sources;  // every path that was read, with its file
        ManifestLoad load;
    };
    // Nothing is kept of a load that reads more bytes.
    static constexpr size_t SIZE_MAX_KEPT = size_t{4} << 20;

    ManifestLoad LoadAndKeep(const std::string& path) {
        Sources sources;
        size_t size = 0;
        ManifestLoad load = PlatformHost::LoadManifests(path, [&](const std::string& file) {
            PlatformHost::YamlFile read = ReadManifest(file);
            size += read.text.size();
            if (size <= SIZE_MAX_KEPT) {
                sources.insert_or_assign(file, read);
            }
            return read;
        });
        if (load.error.empty() && size <= SIZE_MAX_KEPT) {
            Kept kept{path, std::move(sources), load};
            const Wire::LockGuard lock(mutex_);
            kept_ = std::move(kept);
        }
        return load;
    }

    static bool IsUnchanged(const Kept& kept) {
        const auto isSame = [](const auto& source) {
            const PlatformHost::YamlFile now = ReadManifest(source.first);
            const PlatformHost::YamlFile& before = source.second;
            return now.error.empty() && now.realPath == before.realPath && now.text == before.text;
        };
        return std::all_of(kept.sources.begin(), kept.sources.end(), isSame) &&
               HasSameGroups(kept.load);
    }

    Wire::Mutex mutex_;
    bool isOver_ PROCMGR_GUARDED_BY(mutex_) = false;
    std::optional<Kept> kept_ PROCMGR_GUARDED_BY(mutex_);
};

// Loads the file and logs its error first and then its warnings.
ManifestLoad LoadAndReport(const std::string& path) {
    static FirstLoad firstLoad;
    ManifestLoad load = firstLoad.Load(path);
    if (!load.error.empty()) {
        WriteDiagnostic(LOG_ERR, load.error);
    }
    const size_t written = std::min(load.warnings.size(), WARNINGS_MAX);
    for (size_t i = 0; i < written; ++i) {
        WriteDiagnostic(LOG_WARNING, load.warnings[i].Text());
    }
    if (load.warnings.size() > written) {
        WriteDiagnostic(LOG_WARNING, path + ": " + std::to_string(load.warnings.size() - written) +
                                         " further warnings");
    }
    return load;
}

}  // namespace

int ParseAndDepend::ParseYaml(int /*paramType*/, const std::string& path,
                              std::vector<ApplicationManifest>& manifests,
                              std::set<std::string>& scratch) {
    try {
        ManifestLoad load = LoadAndReport(path);
        if (!load.error.empty()) {
            return -1;
        }
        // All steps that can fail come before the first change that the caller can see.
        std::set<std::string> files = scratch;
        files.merge(load.files);
        parsed_.reserve(parsed_.size() + load.manifests.size());
        manifests.reserve(manifests.size() + load.manifests.size());
        parsed_.insert(parsed_.end(), load.manifests.begin(), load.manifests.end());
        std::move(load.manifests.begin(), load.manifests.end(), std::back_inserter(manifests));
        scratch.swap(files);
    } catch (const std::exception& failure) {
        WriteDiagnostic(LOG_ERR, path + ": " + failure.what());
        return -1;
    }
    return 0;
}

bool ParseAndDepend::IsDynamicPara(const std::string& value) {
    return PlatformHost::IsPattern(value);
}

bool ParseAndDepend::IsDynamicParaMatch(const std::string& pattern, const std::string& value) {
    return PlatformHost::MatchesPattern(pattern, value);
}

}  // namespace ProcMgr
