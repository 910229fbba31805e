// The text of lines that services have written: nothing in it may forge lines of a log or control a
// terminal. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ProcMgr::Output {

// The length of the longest beginning of `text` that has at most `length` bytes and does not end
// within a character of UTF-8.
size_t CutLength(std::string_view text, size_t length);

// The text without a carriage return at its end, with a blank for each tab and '?' for each byte of
// every other control character and for each byte that is not part of UTF-8.
std::string MakeHarmless(std::string_view text);

}  // namespace ProcMgr::Output
