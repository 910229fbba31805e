// The first lines of the status: the daemon, how many services run, and what is remarkable.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// Lines of at most `width` columns, the most important first.
std::vector<std::string> FormatHead(const Snapshot& snapshot, size_t width, bool hasColours);

// Why the daemon has no base services; empty when it could read its file.
std::string ConfigErrorText(const DaemonStatus& daemon);

}  // namespace ProcMgr::Pmctl
