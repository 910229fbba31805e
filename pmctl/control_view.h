// What people see of the lines of pm-console, and the exit code that follows from them. Pure: no
// socket, clock or terminal.
#pragma once

#include <chrono>
#include <set>
#include <string>

#include "console/console_protocol.h"

namespace ProcMgr::Pmctl {

class ControlView {
public:
    explicit ControlView(const Console::Request& request);

    // Takes one line. Returns the text to print, which may be empty. Throws CommandError when the
    // line is none of pm-console, and when it says that the request has not been carried out for
    // another reason than an application.
    std::string Take(const std::string& line);

    bool IsDone() const { return isDone_; }
    // EXIT_OK or EXIT_NO, when all is done.
    int GetExitCode() const { return exitCode_; }
    // "web, db: stopping ... 1.2 s": the applications without an outcome after this time. Empty
    // when there are none.
    std::string Progress(std::chrono::milliseconds elapsed) const;

private:
    const Console::Request& request_;
    std::set<std::string> open_;
    bool isDone_ = false;
    int exitCode_ = 0;
};

}  // namespace ProcMgr::Pmctl
