#include "pmctl/reasons.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t BLOCKERS_MAX = 32;
constexpr int DEPTH_MAX = 64;

// Depth first: a blocker comes after those that hold it back.
class Search {
public:
    explicit Search(const Snapshot& snapshot) {
        for (const Service& service : snapshot.services) {
            services_.emplace(service.name, &service);
        }
    }

    // Adds what holds the service back. False when there is nothing.
    bool Visit(const Service& service, int depth) {
        visited_.insert(service.name);
        // Dependencies matter for the first start only: a restart does not wait for them.
        if (service.state != "INITSTATE" || depth > DEPTH_MAX) {
            return false;
        }
        bool isBlocked = false;
        for (const std::string& name : service.depends) {
            isBlocked = VisitDependency(name, depth) || isBlocked;
        }
        return isBlocked;
    }

    std::vector<Blocker> Take() {
        std::stable_partition(blockers_.begin(), blockers_.end(),
                              [](const Blocker& blocker) { return blocker.isRoot; });
        blockers_.resize(std::min(blockers_.size(), BLOCKERS_MAX));
        return std::move(blockers_);
    }

private:
    bool VisitDependency(const std::string& name, int depth) {
        const auto found = services_.find(name);
        if (found == services_.end()) {
            if (visited_.insert(name).second) {
                blockers_.push_back({name, "is not in the file of the base services", true});
            }
            return true;
        }
        const Service& dependency = *found->second;
        if (IsFulfilled(dependency)) {
            return false;
        }
        if (visited_.count(name) == 0) {
            const bool isBlocked = Visit(dependency, depth + 1);
            blockers_.push_back({name, ReasonOf(dependency), !isBlocked});
        }
        return true;
    }

    // A service that reports its state holds others back until its report.
    static bool IsFulfilled(const Service& service) {
        return service.pid > 0 && !(service.isReporting && service.state == "STARTING");
    }

    static std::string ReasonOf(const Service& service) {
        return service.state + (service.why.empty() ? "" : ", " + service.why);
    }

    std::map<std::string_view, const Service*> services_;
    std::set<std::string> visited_;
    std::vector<Blocker> blockers_;
};

}  // namespace

std::vector<Blocker> FindBlockers(const Snapshot& snapshot, const Service& service) {
    Search search(snapshot);
    search.Visit(service, 0);
    return search.Take();
}

}  // namespace ProcMgr::Pmctl
