#include "baseservice/boot_plan.h"

#include <algorithm>
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

bool BootPlan::IsWaiting(std::string_view name) {
    const Entry* entry = Find(name);
    return entry != nullptr && entry->verdict == StartVerdict::WAITING;
}

// A waiting service that no other waiting service depends on is on no cycle, and without it others
// may become such services. What is left is on a cycle, or between two cycles.
void BootPlan::SettleBlocked() {
    std::map<std::string_view, size_t> dependents;
    for (const Entry& entry : entries_) {
        if (entry.verdict == StartVerdict::WAITING) {
            for (const std::string& depend : entry.history->GetFacts()->depends) {
                ++dependents[depend];
            }
        }
    }
    std::vector<Entry*> leaves;
    for (Entry& entry : entries_) {
        const bool isLeaf = !dependents.contains(entry.history->GetFacts()->name);
        if (entry.verdict == StartVerdict::WAITING && isLeaf) {
            leaves.push_back(&entry);
        }
    }
    while (!leaves.empty()) {
        Entry& leaf = *leaves.back();
        leaves.pop_back();
        leaf.verdict = StartVerdict::DEPENDENCY;
        for (const std::string& depend : leaf.history->GetFacts()->depends) {
            if (!IsWaiting(depend)) {
                continue;
            }
            leaf.blocker = depend;
            if (--dependents[depend] == 0) {
                leaves.push_back(Find(depend));
            }
        }
    }
    SettleWaiting(StartVerdict::IN_CYCLE);
}

void BootPlan::SettleWaiting(StartVerdict verdict) {
    for (Entry& entry : entries_) {
        if (entry.verdict == StartVerdict::WAITING) {
            entry.verdict = verdict;
        }
    }
}

}  // namespace ProcMgr
