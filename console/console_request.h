// The line of JSON that a client sends. It comes from a socket, so its length, depth, types and
// values are bounded. For any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "console/console_protocol.h"

namespace ProcMgr::Console {

// Exactly one of the two is set.
struct ParsedRequest {
    std::optional<Request> request;
    std::string error;
};

// `line`: without the newline. Throws nothing but std::bad_alloc.
ParsedRequest ParseRequest(std::string_view line);

}  // namespace ProcMgr::Console
