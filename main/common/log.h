// The daemon's log. In quick-start mode lines go to the kernel log, because the system logger does
// not run yet, otherwise to syslog. Every room logs, from any thread and with any lock held: the
// lines are queued and written by a thread of the log. A child between fork and exec must not log.
#pragma once

#include <sys/types.h>
#include <syslog.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ProcMgr {

// The daemon's name in the log and towards the platform libraries.
inline constexpr const char* PROCMGR_NAME = "PROCMGR";

// Logs one line at LOG_ERR, LOG_WARNING, LOG_INFO or LOG_DEBUG.
void ProcMgrLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The same, but always to syslog: for lines that must not fill the kernel log.
void ProcMgrSysLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Logs a line that the process `pid` of the service `name` has written: "NAME[PID]: TEXT" to
// syslog, at LOG_INFO in the facility LOG_DAEMON. The text has no control characters. False when
// the queue is half full, and the line is dropped and counted: the other half is for the daemon's
// own lines.
bool LogServiceLine(const char* name, pid_t pid, std::string_view text);

// Selects where the lines of ProcMgrLog() go from now on: the kernel log or syslog, which is the
// default.
void SetLogToKernel(bool isKernel);

// Drops all lines from now on: for tools that use the daemon's parsers.
void SwitchLogOff();

// Sets the daemon's identity for libraries that call syslog() themselves.
void OpenLog();
// Writes out the queued lines, for at most `patience`, and ends the log's thread. The next line
// starts it again.
void CloseLog(std::chrono::milliseconds patience = std::chrono::milliseconds(250));
// Looks whether an absent system logger has come, see LogQueue::LookForLogger().
void LookForLogger();
// Whether the log waits for a logger whose path does not exist.
bool IsLoggerMissing();
// The number of lines since the start that the system logger has not got.
uint64_t CountDroppedLogLines();
// Writes out the queued lines that can be written at once. Async-signal-safe; for a process that is
// about to end.
void WriteLogInSignal();

// Bounds the lines of the calling thread while it handles one request of an untrusted peer. The
// destructor logs how many lines were left out. A thread has at most one such object at a time.
class LogLimit {
public:
    // `subject` is named in the line of the destructor and must outlive this object.
    explicit LogLimit(const char* subject);
    ~LogLimit();
    LogLimit(const LogLimit&) = delete;
    LogLimit& operator=(const LogLimit&) = delete;

    // Suspends the calling thread's limit for the lifetime of the object.
    class Pause {
    public:
        Pause();
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;

    private:
        LogLimit* const limit_;
    };

    // Counts a line of that level. False when the limit leaves it out; true without a limit.
    static bool Take(int level);

private:
    // The number of lines at LOG_WARNING and more severe, and the number of other lines.
    static constexpr size_t PROBLEMS_MAX = 8;
    static constexpr size_t NOTES_MAX = 256;

    const char* subject_;
    size_t problems_ = 0;
    size_t notes_ = 0;
    size_t leftOut_ = 0;
};

}  // namespace ProcMgr
