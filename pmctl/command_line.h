// The command line of pmctl: which commands and options there are.
#pragma once

#include <optional>

#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

// Runs the command that the command line names. Returns nothing when it has ended by itself, with
// its code in `context`; otherwise the exit code, after the help has been written to standard
// output or what is wrong with the command line to standard error. Throws CommandError.
std::optional<int> RunCommandLine(int argc, const char* const* argv, Context& context);

}  // namespace ProcMgr::Pmctl
