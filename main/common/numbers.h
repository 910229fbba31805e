// Reads decimal numbers in texts that others have written: files, the boot command line, records.
// Every room uses it, from any thread; no function throws or depends on the locale.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace ProcMgr {

// The number that the whole of `text` represents: digits, and for a signed type a '-' before them.
// Nothing for any other text and for a number that Integer cannot hold.
template <typename Integer>
std::optional<Integer> ParseNumber(std::string_view text) {
    Integer number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    const bool isWhole = parsed.ec == std::errc() && parsed.ptr == end;
    return isWhole ? std::optional(number) : std::nullopt;
}

// The number that `text` begins with, whatever follows it.
template <typename Integer>
std::optional<Integer> ParseLeadingNumber(std::string_view text) {
    Integer number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    return parsed.ec == std::errc() ? std::optional(number) : std::nullopt;
}

}  // namespace ProcMgr
