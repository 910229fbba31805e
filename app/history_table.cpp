#include "app/history_table.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace ProcMgr::App {

std::shared_ptr<AppHistory> HistoryTable::Take(const AppSpec& spec, const std::string& owner) {
    const auto known = histories_.find(spec.appName_);
    if (known == histories_.end()) {
        return Make(spec, owner);
    }
    AppHistory& history = *known->second;
    if (!history.GetFacts()->IsOf(spec, owner)) {
        history.SetFacts(std::make_shared<const AppFacts>(spec, owner));
    }
    return known->second;
}

// In a table that is full of histories in use, the application gets one that only its record keeps.
std::shared_ptr<AppHistory> HistoryTable::Make(const AppSpec& spec, const std::string& owner) {
    auto history = std::make_shared<AppHistory>(
        AppKind::GENERAL, std::make_shared<const AppFacts>(spec, owner), log_);
    if (histories_.size() >= SIZE) {
        MakeRoom();
    }
    if (histories_.size() < SIZE) {
        histories_.emplace(spec.appName_, history);
    }
    return history;
}

// Half of them, so that this is seldom done.
void HistoryTable::MakeRoom() {
    std::vector<Histories::iterator> unused;
    for (auto entry = histories_.begin(); entry != histories_.end(); ++entry) {
        if (entry->second.use_count() == 1) {
            unused.push_back(entry);
        }
    }
    const auto kept = unused.begin() + static_cast<std::ptrdiff_t>((unused.size() + 1) / 2);
    std::nth_element(unused.begin(), kept, unused.end(), [](const auto& one, const auto& other) {
        return one->second->GetWaiting() < other->second->GetWaiting();
    });
    std::for_each(unused.begin(), kept, [this](const auto& entry) { histories_.erase(entry); });
}

}  // namespace ProcMgr::App
