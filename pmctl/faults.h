// The faults that stand on the daemon's sensor nodes, by the service that they are about.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// The event of a start that has failed, and of an end that nobody expected.
inline constexpr int64_t EVENT_START_FAILED = 208;

// In the order in which they were raised.
std::vector<const Fault*> FaultsOf(const Snapshot& snapshot, const Service& service);
// Those about what the document does not have (any more): an application whose start has failed.
std::vector<const Fault*> FaultsOfOthers(const Snapshot& snapshot);

// "heartbeat lost (event 39 on pm_base_service)"
std::string DescribeFault(const Fault& fault);

}  // namespace ProcMgr::Pmctl
