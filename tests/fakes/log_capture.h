// Keeps the lines that the daemon's code logs, in place of the system logger. Any thread may use
// it.
#pragma once

#include <syslog.h>

#include <atomic>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/fakes/recorder.h"

namespace ProcMgr::Fakes {

struct LogLine {
    int level = 0;
    std::string text;
    bool operator==(const LogLine&) const = default;
};

class LogCapture {
public:
    static std::vector<LogLine> Lines() { return Store().Entries(); }
    static void Clear() { Store().Reset(); }

    // Whether, or how often, exactly this line was logged.
    static bool Contains(int level, const std::string& text) { return Count(level, text) > 0; }
    static size_t Count(int level, const std::string& text) {
        return Store().CountIf(IsLine(level, text));
    }
    // Whether a line contains `part`; for lines that begin with a time stamp.
    static bool ContainsPart(int level, const std::string& part) {
        return Store().CountIf(HasPart(level, part)) > 0;
    }

    // Wait until such a line has been logged; false when none comes within `patience`.
    static bool WaitFor(int level, const std::string& text,
                        std::chrono::milliseconds patience = Tests::PATIENCE) {
        return Store().WaitFor(IsLine(level, text), patience);
    }
    static bool WaitForPart(int level, const std::string& part) {
        return Store().WaitFor(HasPart(level, part));
    }

    // Refuses the lines of services from now on, or takes them again.
    static void SetFull(bool isFull) { isFull_ = isFull; }
    static bool TakeOfService(const std::string& text) {
        if (!isFull_) {
            Store().Add(0, {LOG_INFO, text});
        }
        return !isFull_;
    }

    // For the log queue only. Never destroyed: a thread may still log at the end of the process.
    static Recorder<int, LogLine>& Store() {
        static auto* const lines = new Recorder<int, LogLine>;
        return *lines;
    }

private:
    static inline std::atomic<bool> isFull_{false};
    using Predicate = std::function<bool(const LogLine&)>;

    static Predicate IsLine(int level, const std::string& text) {
        return [wanted = LogLine{level, text}](const LogLine& line) { return line == wanted; };
    }
    static Predicate HasPart(int level, const std::string& part) {
        return [=](const LogLine& line) {
            return line.level == level && line.text.find(part) != std::string::npos;
        };
    }
};

// For failure messages of tests.
inline void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.level << ": " << line.text;
}

}  // namespace ProcMgr::Fakes
