// Which services of the base file run or will run, as things are at the moment of a snapshot: a
// service that depends on one that will not is refused when it is its turn. One thread uses an
// object.
#pragma once

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "status/snapshot.h"

namespace ProcMgr::Status {

class StartOutlook {
public:
    // `services` must outlive this object and stay as they are.
    explicit StartOutlook(const std::vector<Entry>& services);

    // Null when the base file has no service of that name.
    const ServiceView* Find(std::string_view name) const;

    // False for a name that is not known, for a service that has been given up or that will not be
    // started, and for one that waits for such a service.
    bool WillRun(std::string_view name) const;

private:
    // For each service that some services wait for, these services.
    using Waiting = std::unordered_map<std::string_view, std::vector<const ServiceView*>>;

    // Adds the services that wait to `waiting`. Returns those that wait for no other.
    std::vector<const ServiceView*> CollectWaiting(const std::vector<Entry>& services,
                                                   Waiting& waiting);

    std::unordered_map<std::string_view, const ServiceView*> services_;
    // The services that wait, and the number of those that each waits for: 0 for all but those that
    // will be refused.
    std::unordered_map<const ServiceView*, size_t> unmet_;
};

}  // namespace ProcMgr::Status
