// The room that keeps the output of services, as the status endpoint sees it. Every function is
// called on the status thread, without a lock; a function that is empty is not called.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ProcMgr::Status {

struct OutputSource {
    // Where the output of the application of that name goes: "inherit", "null", "syslog" or
    // "file:/path". Without the function it is "inherit".
    std::function<std::string(const std::string& name)> describe;
    // Its last lines, oldest first.
    std::function<std::vector<std::string>(const std::string& name)> tail;
    // The number of lines of all applications that have been lost since the daemon's start.
    std::function<uint64_t()> countDropped;
};

}  // namespace ProcMgr::Status
