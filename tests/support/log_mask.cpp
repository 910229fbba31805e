#include "tests/support/log_mask.h"

#include <regex>
#include <utility>

std::string MaskLog(std::string line) {
    static const std::pair<std::regex, const char*> masks[] = {
        {std::regex(R"(\[[0-9.]+s\]\[BOOT_TRACE\]\[PM\])"), "STAMP"},
        {std::regex("pid=[0-9]+"), "pid=PID"},
        {std::regex("pipe fd=[0-9]+"), "pipe fd=N"},
        {std::regex(R"( PROCMGR\[[0-9]+\] )"), " PROCMGR[PID] "},
    };
    for (const auto& [pattern, mask] : masks) {
        line = std::regex_replace(line, pattern, mask);
    }
    return line;
}
