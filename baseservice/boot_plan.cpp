#include "baseservice/boot_plan.h"

#include <map>
#include <utility>

namespace ProcMgr {

void BootPlan::Add(std::shared_ptr<App::AppHistory> history, StartVerdict verdict) {
    const std::string_view name = history->GetFacts()->name;
    if (byName_.try_emplace(name, entries_.size()).second) {
        entries_.push_back({std::move(history), verdict, {}});
    }
}

BootPlan::Entry* BootPlan::Find(std::string_view name) {
    const auto found = byName_.find(name);
    return found == byName_.end() ? nullptr : &entries_[found->second];
}

// A service that none of the others depends on is on no cycle, and without it others may become
// such services. What is left is on a cycle, or between two cycles.
void BootPlan::SettleBlocked(const std::set<std::string>& names) {
    std::vector<Entry*> leaves;
    std::map<std::string_view, size_t> dependents;
    for (const std::string& name : names) {
        if (Entry* entry = Find(name)) {
            leaves.push_back(entry);
            entry->verdict = StartVerdict::IN_CYCLE;
            for (const std::string& depend : entry->history->GetFacts()->depends) {
                ++dependents[depend];
            }
        }
    }
    std::erase_if(leaves, [&](const Entry* entry) {
        return dependents.contains(entry->history->GetFacts()->name);
    });
    while (!leaves.empty()) {
        Entry& leaf = *leaves.back();
        leaves.pop_back();
        leaf.verdict = StartVerdict::DEPENDENCY;
        for (const std::string& depend : leaf.history->GetFacts()->depends) {
            Entry* next = names.contains(depend) ? Find(depend) : nullptr;
            if (next == nullptr) {
                continue;
            }
            leaf.blocker = depend;
            if (--dependents[depend] == 0) {
                leaves.push_back(next);
            }
        }
    }
}

void BootPlan::SettleWaiting(StartVerdict verdict) {
    for (Entry& entry : entries_) {
        if (entry.verdict == StartVerdict::WAITING) {
            entry.verdict = verdict;
        }
    }
}

}  // namespace ProcMgr
