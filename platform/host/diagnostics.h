// Log lines of the host platform: its libraries write errors and warnings with WriteDiagnostic,
// which hands them to the sink of platform/diagnostics.h. Called from every file of this directory.
#pragma once

#include <string>
#include <string_view>

namespace PlatformHost {

// Writes one line at `level` (LOG_ERR, LOG_WARNING, ...). Control characters are replaced by '?',
// so that text from a file cannot forge a second line. Any thread; never throws.
void WriteDiagnostic(int level, std::string_view text);

// Returns `value` in single quotes, shortened after 80 characters, for use inside a message.
std::string Quoted(std::string_view value);

}  // namespace PlatformHost
