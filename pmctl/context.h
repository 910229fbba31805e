// What all commands of pmctl share: the options before the command, the streams, and the result.
#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>

#include "pmctl/exit_codes.h"

namespace ProcMgr::Pmctl {

inline constexpr const char* STATUS_SOCKET = "/run/process-manager/status.sock";
inline constexpr const char* CONSOLE_SOCKET = "/run/process-manager/console.sock";

// Ends a command: main() prints the text after "pmctl: " on standard error, as one line, and exits
// with the code.
class CommandError : public std::runtime_error {
public:
    CommandError(int code, const std::string& text) : std::runtime_error(text), code_(code) {}

    int GetCode() const { return code_; }

private:
    const int code_;
};

struct Context {
    bool isJson = false;  // --json: one JSON document instead of text
    std::string statusSocket = STATUS_SOCKET;
    std::string consoleSocket = CONSOLE_SOCKET;
    std::ostream& out;
    // Whether text for people may contain colours.
    bool hasColours = false;
    // The exit code of a command that ends without a CommandError.
    int exitCode = EXIT_OK;
};

// Whether the process may write colours: standard output is a terminal, NO_COLOR is empty or not
// set, and TERM is set and not "dumb".
bool MayUseColours();

}  // namespace ProcMgr::Pmctl
