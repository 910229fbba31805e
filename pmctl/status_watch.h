// `pmctl status --watch`: the status, drawn anew every second.
#pragma once

#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

// Returns only when standard output cannot be written; a signal ends the process and restores the
// terminal. On a terminal it draws on the alternate screen, else it writes block after block; with
// --json one document a line.
// Throws as the other commands when the daemon does not answer at the begin; later it shows why and
// tries again.
void WatchStatus(const Context& context);

}  // namespace ProcMgr::Pmctl
