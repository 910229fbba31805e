#include "platform/manifest.h"

namespace ProcMgr {

bool DependGraph::IsEmpty() const {
    return waitsFor_.empty();
}

std::vector<std::string> DependGraph::GetNoDependVertices() const {
    std::vector<std::string> free;
    for (const auto& [name, waitsFor] : waitsFor_) {
        if (waitsFor.empty()) {
            free.push_back(name);
        }
    }
    return free;
}

void DependGraph::Pop(const std::string& name) {
    // Taken out and not erased: the caller's text may be the very key that goes.
    const auto popped = waitsFor_.extract(name);
    if (popped.empty()) {
        return;
    }
    const auto released = releases_.extract(popped.key());
    if (released.empty()) {
        return;
    }
    for (const std::string& waiting : released.mapped()) {
        const auto found = waitsFor_.find(waiting);
        if (found != waitsFor_.end()) {
            found->second.erase(popped.key());
        }
    }
}

void DependGraph::Add(const std::string& name, const std::set<std::string>& depends) {
    waitsFor_[name].insert(depends.begin(), depends.end());
    for (const std::string& depend : depends) {
        releases_[depend].insert(name);
    }
}

}  // namespace ProcMgr
