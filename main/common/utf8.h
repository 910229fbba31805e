// Tells the characters of UTF-8 from bytes that are none.
#pragma once

#include <cstddef>
#include <string_view>

namespace ProcMgr {

// The number of bytes of the character that a text begins with, which is not empty; 0 when it does
// not begin with UTF-8. Pure; any thread.
size_t Utf8Length(std::string_view text);

}  // namespace ProcMgr
