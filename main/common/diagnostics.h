// The log lines of the platform libraries on their way into the daemon's log, and the first error
// among them for those who show it elsewhere, too.
#pragma once

#include <string>

namespace ProcMgr {

// The sink for platform/diagnostics.h. Any thread.
void LogDiagnostic(int level, const char* text);

// While an object exists it keeps the first line at LOG_ERR or more severe that a platform library
// logs on the thread of the object: a parser says there why it refuses a file. Objects of a thread
// may be nested; the innermost one takes the line.
class FirstDiagnostic {
public:
    FirstDiagnostic();
    ~FirstDiagnostic();
    FirstDiagnostic(const FirstDiagnostic&) = delete;
    FirstDiagnostic& operator=(const FirstDiagnostic&) = delete;

    // Empty when there was none.
    const std::string& Get() const { return text_; }

private:
    friend void LogDiagnostic(int level, const char* text);

    FirstDiagnostic* const outer_;
    std::string text_;
};

}  // namespace ProcMgr
