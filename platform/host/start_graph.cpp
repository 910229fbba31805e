#include "platform/host/start_graph.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace PlatformHost {
namespace {

// Returns the vertices that never become free: the vertices on a cycle, and the vertices that wait
// for one of these. All others are removed in the order in which they become free.
Dependencies VerticesThatNeverBecomeFree(StartGraph start) {
    for (std::vector<std::string> free = start.graph.GetNoDependVertices(); !free.empty();
         free = start.graph.GetNoDependVertices()) {
        for (const std::string& name : free) {
            start.graph.Pop(name);
            start.edges.erase(name);
        }
    }
    return std::move(start.edges);
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

StartGraph MakeStartGraph(const std::vector<std::string>& names, const Dependencies& depends) {
    const std::unordered_set<std::string_view> chosen(names.begin(), names.end());
    StartGraph start;
    for (const std::string& name : names) {
        std::set<std::string>& waitsFor = start.edges.try_emplace(start.edges.end(), name)->second;
        const auto known = depends.find(name);
        if (known != depends.end()) {
            std::copy_if(known->second.begin(), known->second.end(),
                         std::inserter(waitsFor, waitsFor.end()),
                         [&](const std::string& depend) { return chosen.contains(depend); });
        }
        start.graph.Add(name, waitsFor);
    }
    return start;
}

std::vector<std::vector<std::string>> FindCycles(const StartGraph& start) {
    if (start.graph.GetNoDependVertices().size() == start.edges.size()) {
        return {};
    }
    const Dependencies stuck = VerticesThatNeverBecomeFree(start);
    std::vector<std::vector<std::string>> cycles;
    std::set<std::string> walked;
    for (const auto& [name, unused] : stuck) {
        std::vector<std::string> cycle = WalkToCycle(stuck, name, walked);
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
