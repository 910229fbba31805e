// What the host platform's libraries say to people: single lines to the sink of
// platform/diagnostics.h. All of them write with this one function.
#pragma once

#include <string>
#include <string_view>

namespace ProcMgr {

// Writes one line at `level` (LOG_ERR, LOG_WARNING, ...); control characters are replaced, so that
// text that came from a file cannot forge a second line. Any thread; never throws.
void WriteDiagnostic(int level, std::string_view text);

// `value` in single quotes, shortened when it is long: for use inside a message.
std::string Quoted(std::string_view value);

}  // namespace ProcMgr
