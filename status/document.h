// The documents of the status endpoint as JSON text of one line; docs/status.md describes them.
// Pure functions for any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "status/snapshot.h"

namespace ProcMgr::Status {

// The answer to "status".
std::string WriteDocument(const Snapshot& snapshot);

// The answer to "events".
std::string WriteEvents(const ClockPair& clock, int32_t pid,
                        const std::vector<App::ChangeLog::Entry>& events);

// The answer to a request that is none.
std::string WriteError();

}  // namespace ProcMgr::Status
