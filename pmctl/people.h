// Numbers, times and texts of others, as people read them on a terminal. Pure but for the time
// zone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// "512 KiB", "12.3 MiB", "1.2 GiB".
std::string FormatKib(double kib);
// "0.3 ms", "1.5 s", "3 min 20 s", "2 h 5 min", "3 d 4 h".
std::string FormatDuration(double ns);
// The duration with one unit: "3 min", "2 h".
std::string FormatShort(double ns);
// "2 h", "2 h ago", of a moment before the document was made.
std::string FormatAge(const Clocks& clock, int64_t atNs);
std::string FormatAgo(const Clocks& clock, int64_t atNs);
// "2026-11-22 11:37:13.123" in the local time zone.
std::string FormatWall(const Clocks& clock, int64_t atNs);
// "1 line", "2 lines".
std::string Counted(int64_t number, std::string_view noun);

// The text without what steers a terminal: control characters, characters that change the direction
// of the writing and bytes that are no UTF-8 become \xNN or \u{NNNN}.
std::string Printable(std::string_view text);
// The printable text, cut to at most `columns`; `ellipsis`, which is not wider than that, is its
// end then.
std::string Fitted(std::string_view text, size_t columns, std::string_view ellipsis);
// The text with blanks up to `columns`.
std::string Padded(std::string_view text, size_t columns);
// Lines of at most `columns`, broken at blanks; all but the first begin with `indent` blanks.
std::string Wrapped(std::string_view text, size_t columns, size_t indent);

}  // namespace ProcMgr::Pmctl
