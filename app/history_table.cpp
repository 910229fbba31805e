#include "app/history_table.h"

#include <utility>

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
        std::erase_if(histories_, [](const auto& entry) { return entry.second.use_count() == 1; });
    }
    if (histories_.size() < SIZE) {
        histories_.emplace(spec.appName_, history);
    }
    return history;
}

}  // namespace ProcMgr::App
