// The dependency graph of platform/manifest.h: DependGraph, and GetStartGraph of ParseAndDepend.
#include <syslog.h>

#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/start_graph.h"
#include "platform/manifest.h"

namespace ProcMgr {
namespace {

void ReportCycles(const std::vector<std::vector<std::string>>& cycles) {
    for (const std::vector<std::string>& cycle : cycles) {
        PlatformHost::WriteDiagnostic(LOG_ERR, "dependency cycle, none of these can start: " +
                                                   PlatformHost::CycleText(cycle));
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

// The hints save the search while the names come in alphabetical order.
void DependGraph::Add(const std::string& name, const std::set<std::string>& depends) {
    std::set<std::string>& waitsFor = waitsFor_.try_emplace(waitsFor_.end(), name)->second;
    waitsFor.insert(depends.begin(), depends.end());
    if (waitsFor.empty()) {
        free_.insert(free_.end(), name);
    } else {
        free_.erase(name);
    }
    for (const std::string& depend : depends) {
        releases_[depend].insert(name);
    }
}

int ParseAndDepend::GetStartGraph(const std::vector<std::string>& names, DependGraph& graph) {
    PlatformHost::Dependencies depends;
    for (const ApplicationManifest& manifest : parsed_) {
        depends.insert_or_assign(depends.end(), manifest.GetAppName(), manifest.GetDependList());
    }
    PlatformHost::StartGraph built = PlatformHost::MakeStartGraph(names, depends);
    ReportCycles(PlatformHost::FindCycles(built));
    graph = std::move(built.graph);
    return 0;
}

}  // namespace ProcMgr
