// What can be told of a request for general applications before it is sent to pm-console.
#pragma once

#include <string>

#include "console/console_protocol.h"
#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

// Throws CommandError with EXIT_NO when one of the names is that of a base service: pm-console
// learns of applications only. The daemon tells it over its status socket; when it does not answer
// there, nothing is checked.
void RefuseBaseServices(const Console::Request& request, const Context& context);

// Throws CommandError with EXIT_NO when there is no regular file at the path of the request. A path
// that the user may not follow is left to the daemon.
void RefuseMissingFile(const Console::Request& request);

}  // namespace ProcMgr::Pmctl
