// The lines of the host resource file: KEY=VALUE, where the value of a cgroup set is
// "group:percent;group:percent". CgroupMgr reads the file with these functions, and so does a
// checker of the file. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace ProcMgr {

// A longer line ends the reading.
inline constexpr size_t HOST_RESOURCE_LINE_MAX = 511;

// The set that the daemon itself sets, and the key that keeps it from that.
inline constexpr const char* HOST_CPU_SET = "HOST_CPU_SET";
inline constexpr const char* HOST_CPU_SWITCH = "HOST_CPU_SWITCH";

struct HostResourceLine {
    enum class Kind {
        SKIPPED,  // a comment, or no KEY=VALUE
        IGNORED,  // a key without effect
        SWITCH,   // HOST_CPU_SWITCH
        SET,      // any other key: a cgroup set
    };
    Kind kind = Kind::SKIPPED;
    std::string key;
    std::string_view value;  // without quotes around it; part of the line
};

HostResourceLine ParseHostResourceLine(std::string_view line);

// Whether the character may be in a line; a line with any other character is skipped.
bool IsHostResourceCharacter(char c);

// One group of a set. EMPTY: the name or the value is empty; NO_NUMBER: the value begins with no
// number, and the percentage is 0.
struct CgroupSetEntry {
    enum class Fault { NONE, EMPTY, NO_NUMBER };
    std::string group;
    std::string value;
    int32_t percentage = 0;
    Fault fault = Fault::NONE;
};

// Calls `take` for each group of the value of a set; a result of false ends the parsing. False when
// it was ended. A group without a percentage of its own, as in "a:1;2", overwrites the percentage
// of the group before it.
bool ParseCgroupSet(std::string_view value, const std::function<bool(const CgroupSetEntry&)>& take);

}  // namespace ProcMgr
