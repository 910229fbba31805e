// Asks the daemon over its status socket: one request, one answer, one connection.
#pragma once

#include <string>
#include <string_view>

namespace ProcMgr::Pmctl {

// Sends the request, a line without its end, and returns the answer without the line end. Waits for
// at most 5 s in all and takes at most 16 MiB. Throws CommandError: EXIT_NO_ANSWER when the socket
// is missing, refuses, keeps silent or ends the answer early; EXIT_NO_PERMISSION; EXIT_USAGE for a
// path or a request that cannot be sent.
std::string AskDaemon(const std::string& socketPath, std::string_view request);

// The request for one service or application, by its name.
std::string StatusRequest(std::string_view name);

}  // namespace ProcMgr::Pmctl
