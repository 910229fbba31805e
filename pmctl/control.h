// The parts of the commands for general applications that need no parser of command lines.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "console/console_protocol.h"
#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

// What "--wait" without a value stands for.
inline constexpr const char* WAIT_ALONE = "30 s";

// What the command line says. Texts are as given.
struct ControlOptions {
    std::vector<std::string> names = {};
    std::vector<std::string> args = {};
    std::vector<std::string> env = {};
    std::string exec = {};
    std::string vfId = {};
    std::string file = {};
    std::vector<std::string> match = {};  // KEY=VALUE
    // Seconds, or WAIT_ALONE for the option without a value; empty: not to wait.
    std::string wait = {};
};

// Throws CommandError for what cannot be a request.
Console::Request MakeRequest(Console::Command command, const ControlOptions& options);

// Sends the request to pm-console and writes what comes back until all is done. Sets the exit code
// of `context`. Throws CommandError.
void RunControl(const Console::Request& request, Context& context);

}  // namespace ProcMgr::Pmctl
