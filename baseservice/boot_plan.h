// The services of the base file in the order of the file, with their histories, also those that are
// never started and those whose records have been removed. For the status endpoint; empty while it
// is off. A part of BaseServices, which guards it by its lock.
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "app/app_history.h"
#include "app/app_view.h"

namespace ProcMgr {

// What base start-up has decided about a service.
enum class StartVerdict {
    WAITING,     // nothing yet
    RELEASED,    // it was its turn: its start has been attempted
    EXCLUDED,    // the boot command line does not have the keyword of its file
    IN_CYCLE,    // it waits for itself
    DEPENDENCY,  // a service that it depends on does not run
    ABANDONED,   // start-up has ended before its turn
};

// What the status endpoint shows of a base service.
struct ServiceView {
    App::AppView app;
    StartVerdict verdict = StartVerdict::WAITING;
    std::string blocker;  // the dependency of StartVerdict::DEPENDENCY
};

class BootPlan {
public:
    struct Entry {
        std::shared_ptr<App::AppHistory> history;
        StartVerdict verdict = StartVerdict::WAITING;
        std::string blocker;
    };

    // Adds a service at the end; a second one of the same name is left out.
    void Add(std::shared_ptr<App::AppHistory> history, StartVerdict verdict);
    // Null when the file has no service of that name.
    Entry* Find(std::string_view name);

    size_t GetSize() const { return entries_.size(); }
    const Entry& Get(size_t index) const { return entries_[index]; }

    // Decides about the services of `names`, which wait for each other: those on dependency cycles,
    // and those that wait for such a service.
    void SettleBlocked(const std::set<std::string>& names);
    // Sets the verdict of the services that still wait.
    void SettleWaiting(StartVerdict verdict);

private:
    std::vector<Entry> entries_;
    std::unordered_map<std::string_view, size_t> byName_;  // the names are in the histories
};

}  // namespace ProcMgr
