// The base services as owners of general applications: which services may own applications, and
// whether one of them is ready. Implemented by BaseServices, called by GeneralApps.
#pragma once

#include <string>
#include <vector>

namespace ProcMgr {

// Both functions take the lock of the base services, so the caller may hold the lock of the general
// applications but none that comes later in the lock order.
class OwnerServices {
public:
    virtual ~OwnerServices() = default;

    // True when the present process of the service is alive and has reported that it is ready.
    virtual bool IsReady(const std::string& name) = 0;

    // Those of `names` that belong to services that have a pipe, or that have promised to report
    // and will get one, in start order.
    virtual std::vector<std::string> GetOwnersAmong(const std::vector<std::string>& names) = 0;
};

}  // namespace ProcMgr
