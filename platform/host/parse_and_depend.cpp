#include <malloc.h>
#include <syslog.h>

#include <algorithm>
#include <exception>

#include "platform/host/diagnostics.h"
#include "platform/host/manifest_loader.h"
#include "platform/host/pattern.h"
#include "platform/manifest.h"

namespace ProcMgr {
namespace {

YamlFile ReadManifestFile(const std::string& path) {
    return ReadYamlFile(path, FileTrust::OWNER_ONLY);
}

// Of one load. Whoever takes the lines may bound their number: warnings must not use it up.
constexpr size_t WARNINGS_MAX = 4;

// Loads the file and says in the log what is wrong with it, the error first.
ManifestLoad LoadAndReport(const std::string& path) {
    ManifestLoad load = LoadManifests(path, ReadManifestFile);
    if (!load.error.empty()) {
        WriteDiagnostic(LOG_ERR, load.error);
    }
    const size_t told = std::min(load.warnings.size(), WARNINGS_MAX);
    for (size_t i = 0; i < told; ++i) {
        WriteDiagnostic(LOG_WARNING, load.warnings[i]);
    }
    if (load.warnings.size() > told) {
        WriteDiagnostic(LOG_WARNING, path + ": " + std::to_string(load.warnings.size() - told) +
                                         " further warnings");
    }
    return load;
}

using Dependencies = std::map<std::string, std::set<std::string>>;

// What is left when the vertices that wait for nothing, and then the ones that waited only for
// those, are taken away: the vertices on a cycle or behind one.
Dependencies VerticesThatNeverBecomeFree(DependGraph graph, Dependencies edges) {
    for (std::vector<std::string> free = graph.GetNoDependVertices(); !free.empty();
         free = graph.GetNoDependVertices()) {
        for (const std::string& name : free) {
            graph.Pop(name);
            edges.erase(name);
        }
    }
    return edges;
}

// Walks from vertex to vertex until it comes to one that was `walked` already, and returns the part
// of the walk that is a cycle: empty when it ended in an earlier walk.
std::vector<std::string> WalkToCycle(const Dependencies& stuck, const std::string& start,
                                     std::set<std::string>& walked) {
    std::vector<std::string> walk;
    std::string at = start;
    while (walked.insert(at).second) {
        walk.push_back(at);
        const std::set<std::string>& waitsFor = stuck.at(at);
        // Each vertex that never becomes free waits for another such vertex.
        at = *std::find_if(waitsFor.begin(), waitsFor.end(),
                           [&stuck](const std::string& next) { return stuck.contains(next); });
    }
    walk.erase(walk.begin(), std::find(walk.begin(), walk.end(), at));
    return walk;
}

void ReportCycles(const Dependencies& stuck) {
    std::set<std::string> walked;
    for (const auto& [start, unused] : stuck) {
        const std::vector<std::string> cycle = WalkToCycle(stuck, start, walked);
        if (cycle.empty()) {
            continue;
        }
        std::string text = "dependency cycle, none of these can start: ";
        for (const std::string& name : cycle) {
            text += name;
            text += " -> ";
        }
        WriteDiagnostic(LOG_ERR, text + cycle.front());
    }
}

// The file's text and tree are gone, but yaml-cpp took many small blocks for them between others
// that stay: without this they would weigh on a process that runs for ever and parses seldom.
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
        // All that can fail comes before the first change that the caller can see.
        std::map<std::string, std::set<std::string>> depends = depends_;
        for (const ApplicationManifest& manifest : load.manifests) {
            depends[manifest.GetAppName()] = manifest.GetDependList();
        }
        std::set<std::string> files = scratch;
        files.merge(load.files);
        manifests.reserve(manifests.size() + load.manifests.size());
        manifests.insert(manifests.end(), std::make_move_iterator(load.manifests.begin()),
                         std::make_move_iterator(load.manifests.end()));
        scratch.swap(files);
        depends_.swap(depends);
    } catch (const std::exception& failure) {
        WriteDiagnostic(LOG_ERR, path + ": " + failure.what());
        return -1;
    }
    return 0;
}

int ParseAndDepend::GetStartGraph(const std::vector<std::string>& names, DependGraph& graph) {
    const std::set<std::string> chosen(names.begin(), names.end());
    Dependencies edges;
    for (const std::string& name : chosen) {
        std::set<std::string>& waitsFor = edges[name];
        const auto known = depends_.find(name);
        if (known == depends_.end()) {
            continue;
        }
        for (const std::string& depend : known->second) {
            if (chosen.contains(depend)) {
                waitsFor.insert(depend);
            }
        }
    }
    DependGraph built;
    for (const auto& [name, waitsFor] : edges) {
        built.Add(name, waitsFor);
    }
    ReportCycles(VerticesThatNeverBecomeFree(built, edges));
    graph = std::move(built);
    return 0;
}

bool ParseAndDepend::IsDynamicPara(const std::string& value) {
    return IsPattern(value);
}

bool ParseAndDepend::IsDynamicParaMatch(const std::string& pattern, const std::string& value) {
    return MatchesPattern(pattern, value);
}

}  // namespace ProcMgr
