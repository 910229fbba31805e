// The parsing of manifests in ParseAndDepend of platform/manifest.h, and its questions about
// patterns.
#include <malloc.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <iterator>

#include "platform/host/diagnostics.h"
#include "platform/host/manifest_loader.h"
#include "platform/host/pattern.h"
#include "platform/manifest.h"

namespace ProcMgr {
namespace {

using PlatformHost::ManifestLoad;
using PlatformHost::WriteDiagnostic;

// For one load. The daemon's log accepts a limited number of lines, so that many warnings could
// displace the lines after them.
constexpr size_t WARNINGS_MAX = 4;

// Loads the file and logs its error first and then its warnings.
ManifestLoad LoadAndReport(const std::string& path) {
    ManifestLoad load = PlatformHost::LoadManifests(path, [](const std::string& file) {
        return PlatformHost::ReadYamlFile(file, PlatformHost::FileTrust::OWNER_ONLY);
    });
    if (!load.error.empty()) {
        WriteDiagnostic(LOG_ERR, load.error);
    }
    const size_t written = std::min(load.warnings.size(), WARNINGS_MAX);
    for (size_t i = 0; i < written; ++i) {
        WriteDiagnostic(LOG_WARNING, load.warnings[i]);
    }
    if (load.warnings.size() > written) {
        WriteDiagnostic(LOG_WARNING, path + ": " + std::to_string(load.warnings.size() - written) +
                                         " further warnings");
    }
    return load;
}

// Gives the free pages of the heap back to the system. Text and tree of the file are small blocks,
// many of them between blocks that stay, so that free() alone returns little of this memory; the
// daemon runs for ever and seldom parses.
struct HeapTrim {
    HeapTrim() = default;
    ~HeapTrim() { malloc_trim(0); }
    HeapTrim(const HeapTrim&) = delete;
    HeapTrim& operator=(const HeapTrim&) = delete;
};

}  // namespace

int ParseAndDepend::ParseYaml(int /*paramType*/, const std::string& path,
                              std::vector<ApplicationManifest>& manifests,
                              std::set<std::string>& scratch) {
    const HeapTrim trimAtTheEnd;
    try {
        ManifestLoad load = LoadAndReport(path);
        if (!load.error.empty()) {
            return -1;
        }
        // All steps that can fail come before the first change that the caller can see.
        std::map<std::string, std::set<std::string>> depends = depends_;
        for (const ApplicationManifest& manifest : load.manifests) {
            depends[manifest.GetAppName()] = manifest.GetDependList();
        }
        std::set<std::string> files = scratch;
        files.merge(load.files);
        manifests.reserve(manifests.size() + load.manifests.size());
        std::move(load.manifests.begin(), load.manifests.end(), std::back_inserter(manifests));
        scratch.swap(files);
        depends_.swap(depends);
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
