// Keeps the 20000 most recent lines that the daemon's code logs, in place of the system logger. Any
// thread may use it.
#pragma once

#include <syslog.h>

#include <chrono>
#include <string>
#include <vector>

namespace ProcMgr::Fakes {

struct LogLine {
    int level = 0;
    std::string text;
    bool operator==(const LogLine&) const = default;
};

class LogCapture {
public:
    static std::vector<LogLine> Lines();
    static void Clear();

    // Whether, or how often, exactly this line was logged.
    static bool Contains(int level, const std::string& text) { return Count(level, text) > 0; }
    static size_t Count(int level, const std::string& text);
    // Whether a line contains `part`; for lines that begin with a time stamp.
    static bool ContainsPart(int level, const std::string& part);

    // Wait until such a line has been logged; false after `timeout`.
    static bool WaitFor(int level, const std::string& text,
                        std::chrono::milliseconds timeout = std::chrono::seconds(30));
    static bool WaitForPart(int level, const std::string& part,
                            std::chrono::milliseconds timeout = std::chrono::seconds(30));
};

// For failure messages of tests.
void PrintTo(const LogLine& line, std::ostream* out);

}  // namespace ProcMgr::Fakes
