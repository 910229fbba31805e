// The dependency graph of platform/manifest.h: DependGraph, and GetStartGraph of ParseAndDepend
// with the search for cycles.
#include <syslog.h>

#include <algorithm>

#include "platform/host/diagnostics.h"
#include "platform/manifest.h"

namespace ProcMgr {
namespace {

using Dependencies = std::map<std::string, std::set<std::string>>;

// Returns the vertices that never become free: the vertices on a cycle, and the vertices that wait
// for one of these. All others are removed in the order in which they become free.
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

// Walks from vertex to vertex until it reaches a vertex that is in `walked`, and returns the part
// of this walk that is a cycle; empty when the walk ended at a vertex of an earlier walk.
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
        PlatformHost::WriteDiagnostic(LOG_ERR, text + cycle.front());
    }
}

}  // namespace

bool DependGraph::IsEmpty() const {
    return waitsFor_.empty();
}

std::vector<std::string> DependGraph::GetNoDependVertices() const {
    return {free_.begin(), free_.end()};
}

void DependGraph::Pop(const std::string& name) {
    // Extracted and not erased: `name` may refer to the key of the vertex itself.
    const auto popped = waitsFor_.extract(name);
    if (popped.empty()) {
        return;
    }
    free_.erase(popped.key());
    const auto released = releases_.extract(popped.key());
    if (released.empty()) {
        return;
    }
    for (const std::string& waiting : released.mapped()) {
        const auto found = waitsFor_.find(waiting);
        if (found != waitsFor_.end() && found->second.erase(popped.key()) > 0 &&
            found->second.empty()) {
            free_.insert(waiting);
        }
    }
}

void DependGraph::Add(const std::string& name, const std::set<std::string>& depends) {
    std::set<std::string>& waitsFor = waitsFor_[name];
    waitsFor.insert(depends.begin(), depends.end());
    if (waitsFor.empty()) {
        free_.insert(name);
    } else {
        free_.erase(name);
    }
    for (const std::string& depend : depends) {
        releases_[depend].insert(name);
    }
}

int ParseAndDepend::GetStartGraph(const std::vector<std::string>& names, DependGraph& graph) {
    const std::set<std::string> chosen(names.begin(), names.end());
    Dependencies edges;
    DependGraph built;
    for (const std::string& name : chosen) {
        std::set<std::string>& waitsFor = edges[name];
        const auto known = depends_.find(name);
        if (known != depends_.end()) {
            std::copy_if(known->second.begin(), known->second.end(),
                         std::inserter(waitsFor, waitsFor.end()),
                         [&](const std::string& depend) { return chosen.contains(depend); });
        }
        built.Add(name, waitsFor);
    }
    if (built.GetNoDependVertices().size() < chosen.size()) {
        ReportCycles(VerticesThatNeverBecomeFree(built, std::move(edges)));
    }
    graph = std::move(built);
    return 0;
}

}  // namespace ProcMgr
