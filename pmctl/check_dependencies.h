// The dependencies of the services of a file: names that the daemon will not find, and cycles.
#pragma once

#include <vector>

#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

// `entries`: everything that is loaded together. `isComplete`: no entry is missing among them
// because of an error; names that nobody has are reported only then.
void CheckDependencies(const std::vector<CheckedEntry>& entries, bool isComplete);

}  // namespace ProcMgr::Pmctl
