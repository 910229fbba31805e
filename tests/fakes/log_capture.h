// Keeps what the daemon's code logs in place of handing it to the system logger. Any thread may
// use it. The most recent lines only: a test that logs without end does not fill the memory.
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
    static bool Contains(int level, const std::string& text);
    static size_t Count(int level, const std::string& text);
    // For lines that begin with a time stamp: `part` is somewhere in the line.
    static bool ContainsPart(int level, const std::string& part);

    // Wait until the line is there.
    static bool WaitFor(int level, const std::string& text,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5));
    static bool WaitForPart(int level, const std::string& part,
                            std::chrono::milliseconds timeout = std::chrono::seconds(5));
};

// For a test's failure message.
void PrintTo(const LogLine& line, std::ostream* out);

}  // namespace ProcMgr::Fakes
