// The daemon's one log facility. In quick-start mode lines go to the kernel log, because the system
// logger does not run yet, otherwise to syslog. Every room calls it, from any thread; nobody waits
// for a sink. A child between fork and exec must not log.
#pragma once

#include <syslog.h>

#include <chrono>
#include <cstddef>

namespace ProcMgr {

// The daemon's name in the log and towards the platform libraries.
inline constexpr const char* PROCMGR_NAME = "PROCMGR";

// Logs one line at LOG_ERR, LOG_WARNING, LOG_INFO or LOG_DEBUG.
void ProcMgrLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// As above, but to syslog whatever the mode: for lines that must not fill the kernel log.
void ProcMgrSysLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Selects where the lines of ProcMgrLog() go from now on: the kernel log or syslog, which is the
// default.
void SetLogToKernel(bool isKernel);

// Opens syslog under the daemon's identity, for what libraries write there themselves.
void OpenLog();
// Writes out what is queued, for at most `patience`, and closes the log. Lines that are logged
// afterwards open it again.
void CloseLog(std::chrono::milliseconds patience = std::chrono::milliseconds(250));
// Writes out what can be written at once; async-signal-safe.
void WriteLogInSignal();

// Bounds what the calling thread logs while it handles one request of somebody who is not trusted.
// When the object goes, one line says how many lines were left out. One at a time in a thread.
class LogLimit {
public:
    // `subject` is named in that line and must live as long as this object.
    explicit LogLimit(const char* subject);
    ~LogLimit();
    LogLimit(const LogLimit&) = delete;
    LogLimit& operator=(const LogLimit&) = delete;

    // While it lives, the calling thread's limit does not hold.
    class Pause {
    public:
        Pause();
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;

    private:
        LogLimit* const limit_;
    };

    // Whether a line of that level may still be logged; counts it. True without a limit.
    static bool Take(int level);

private:
    // What is wrong with a request is told in so many lines, what is done for it in so many.
    static constexpr size_t PROBLEMS_MAX = 8;
    static constexpr size_t NOTES_MAX = 256;

    const char* subject_;
    size_t problems_ = 0;
    size_t notes_ = 0;
    size_t leftOut_ = 0;
};

}  // namespace ProcMgr
