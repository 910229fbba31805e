// The status of the services as text for people.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// Whether the row of a service is marked.
using IsMarked = std::function<bool(const Service&)>;

// The heading of the table, then a line for each of `shown`: of at most `width` columns.
std::vector<std::string> FormatRows(const Snapshot& snapshot,
                                    const std::vector<const Service*>& shown, size_t width,
                                    bool hasColours, const IsMarked& isMarked = {});

// All services and applications in the order of the document.
std::vector<const Service*> AllOf(const Snapshot& snapshot);

// Everything about one service, as lines with their ends.
std::string FormatDetails(const Snapshot& snapshot, const Service& service, size_t width,
                          bool hasColours);

// "killed by signal 9 (SIGKILL), 2 min ago, process 12, not expected"
std::string FormatExit(const Clocks& clock, const LastExit& lastExit);

// The last lines of output, indented.
std::string FormatTail(const Service& service);

}  // namespace ProcMgr::Pmctl
