#include "pmctl/faults.h"

#include <algorithm>
#include <string_view>

namespace ProcMgr::Pmctl {
namespace {

// A service and an application may have the same name; each kind has a node of its own.
bool IsAbout(const Fault& fault, const Service& service) {
    if (fault.name != service.name) {
        return false;
    }
    const std::string_view other =
        service.kind == "application" ? "pm_base_service" : "pm_general_app";
    return fault.node != other;
}

}  // namespace

std::vector<const Fault*> FaultsOf(const Snapshot& snapshot, const Service& service) {
    std::vector<const Fault*> faults;
    for (const Fault& fault : snapshot.faults) {
        if (IsAbout(fault, service)) {
            faults.push_back(&fault);
        }
    }
    return faults;
}

std::vector<const Fault*> FaultsOfOthers(const Snapshot& snapshot) {
    std::vector<const Fault*> faults;
    for (const Fault& fault : snapshot.faults) {
        const auto isSubject = [&fault](const Service& service) { return IsAbout(fault, service); };
        const auto has = [&isSubject](const std::vector<Service>& services) {
            return std::any_of(services.begin(), services.end(), isSubject);
        };
        if (!has(snapshot.services) && !has(snapshot.applications)) {
            faults.push_back(&fault);
        }
    }
    return faults;
}

std::string DescribeFault(const Fault& fault) {
    return fault.text + " (event " + std::to_string(fault.event) + " on " + fault.node + ')';
}

}  // namespace ProcMgr::Pmctl
