// Reads decimal numbers in texts that others have written: files, the boot command line, records;
// and writes them where no memory may be allocated. Every room uses it, from any thread; no
// function throws or depends on the locale.
#pragma once

#include <array>
#include <charconv>
#include <cstdint>
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

// The decimal text of a number, in the object itself.
class Decimal {
public:
    explicit Decimal(int64_t number)
        : size_(static_cast<size_t>(
              std::to_chars(text_.data(), text_.data() + text_.size(), number).ptr -
              text_.data())) {}

    std::string_view Get() const { return {text_.data(), size_}; }

private:
    std::array<char, 20> text_;  // the longest number has 20 characters
    size_t size_;
};

}  // namespace ProcMgr
