#include "platform/host/manifest_cycles.h"

#include <algorithm>
#include <utility>

namespace PlatformHost {
namespace {

// Returns the vertices that never become free: the vertices on a cycle, and the vertices that wait
// for one of these. All others are removed in the order in which they become free.
Dependencies VerticesThatNeverBecomeFree(ProcMgr::DependGraph graph, Dependencies edges) {
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

}  // namespace

std::vector<std::vector<std::string>> FindCycles(const ProcMgr::DependGraph& graph,
                                                 Dependencies edges) {
    const Dependencies stuck = VerticesThatNeverBecomeFree(graph, std::move(edges));
    std::vector<std::vector<std::string>> cycles;
    std::set<std::string> walked;
    for (const auto& [start, unused] : stuck) {
        std::vector<std::string> cycle = WalkToCycle(stuck, start, walked);
        if (!cycle.empty()) {
            cycles.push_back(std::move(cycle));
        }
    }
    return cycles;
}

std::string CycleText(const std::vector<std::string>& cycle) {
    std::string text;
    for (const std::string& name : cycle) {
        text += name;
        text += " -> ";
    }
    return text + cycle.front();
}

}  // namespace PlatformHost
