// The status of the daemon and its services as text for people.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// Whether the row of a service is marked.
using IsMarked = std::function<bool(const Service&)>;

struct StatusText {
    std::vector<std::string> head;  // the daemon, and how many services run
    std::vector<std::string> rows;  // the heading of the table, then a line for each of `shown`
};

// Lines of at most `width` columns.
StatusText FormatStatus(const Snapshot& snapshot, const std::vector<const Service*>& shown,
                        size_t width, bool hasColours, const IsMarked& isMarked = {});

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
