// The dependency cycles of services. ParseAndDepend logs them, and a checker shows them.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/manifest.h"

namespace PlatformHost {

// The names that each name waits for.
using Dependencies = std::map<std::string, std::set<std::string>>;

// Each cycle once, as the names on it: each waits for the next, and the last for the first. `graph`
// holds the vertices and edges of `edges`; every name that is waited for is a vertex itself.
std::vector<std::vector<std::string>> FindCycles(const ProcMgr::DependGraph& graph,
                                                 Dependencies edges);

// "a -> b -> a"
std::string CycleText(const std::vector<std::string>& cycle);

}  // namespace PlatformHost
