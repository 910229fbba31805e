// The requests of the status endpoint. A pure function for any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ProcMgr::Status {

// The highest number of bytes of a request, with the line feed.
inline constexpr size_t REQUEST_SIZE = 512;

struct Request {
    enum class Kind { STATUS, EVENTS, UNKNOWN };

    Kind kind = Kind::UNKNOWN;
    std::string name;     // STATUS: only this application; empty: all
    uint64_t number = 0;  // EVENTS: those with a higher number
};

// Parses a line without its line feed: "status", "status NAME" or "events NUMBER".
Request ParseRequest(std::string_view line);

}  // namespace ProcMgr::Status
