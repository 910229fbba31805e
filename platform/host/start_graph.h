// The graph of the services that are to be started, and its cycles. ParseAndDepend builds it for
// the daemon, a tool shows it before a boot.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/manifest.h"

namespace PlatformHost {

// The names that each name waits for.
using Dependencies = std::map<std::string, std::set<std::string>>;

struct StartGraph {
    ProcMgr::DependGraph graph;
    Dependencies edges;  // the vertices of the graph with the vertices that each waits for
};

// The graph of `names`, with an edge for each dependency that is also among `names`.
StartGraph MakeStartGraph(const std::vector<std::string>& names, const Dependencies& depends);

// Each cycle once, as the names on it: each waits for the next, and the last for the first.
std::vector<std::vector<std::string>> FindCycles(const StartGraph& start);

// "a -> b -> a"
std::string CycleText(const std::vector<std::string>& cycle);

}  // namespace PlatformHost
