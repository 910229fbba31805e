#include "tests/support/log_mask.h"

#include <algorithm>
#include <string_view>

namespace {

// Replaces each run of `characters` that follows `before` and precedes `after` by `word`.
void Mask(std::string& line, std::string_view before, std::string_view characters,
          std::string_view after, std::string_view word) {
    for (size_t at = line.find(before); at != std::string::npos; at = line.find(before, at)) {
        at += before.size();
        const size_t end = std::min(line.find_first_not_of(characters, at), line.size());
        if (end > at && std::string_view(line).substr(end).starts_with(after)) {
            line.replace(at, end - at, word);
        }
    }
}

}  // namespace

std::string MaskLog(const std::string& line) {
    static constexpr std::string_view DIGITS = "0123456789";
    static constexpr std::string_view STAMP = "[s][BOOT_TRACE][PM]";
    std::string masked = line;
    Mask(masked, "[", "0123456789.", "s][BOOT_TRACE][PM]", "");
    for (size_t at = 0; (at = masked.find(STAMP)) != std::string::npos;) {
        masked.replace(at, STAMP.size(), "STAMP");
    }
    Mask(masked, "pid=", DIGITS, "", "PID");
    Mask(masked, "pipe fd=", DIGITS, "", "N");
    Mask(masked, " PROCMGR[", DIGITS, "] ", "PID");
    return masked;
}
