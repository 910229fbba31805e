// What holds a service back: its dependencies that do not run, down to the root causes.
#pragma once

#include <string>
#include <vector>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

struct Blocker {
    std::string name;
    std::string reason;
    bool isRoot = false;  // nothing else holds this one back
};

// The dependencies of a service that waits for its first start, and theirs, as far as they do not
// run: each once, the root causes first, then what waits for them. At most 32.
std::vector<Blocker> FindBlockers(const Snapshot& snapshot, const Service& service);

}  // namespace ProcMgr::Pmctl
