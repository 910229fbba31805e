// The daemon's one log facility. In quick-start mode lines go to the kernel log, because the system
// logger does not run yet, otherwise to syslog. Every room calls it, from any thread.
#pragma once

#include <sys/types.h>
#include <syslog.h>

namespace ProcMgr {

// Logs one line at LOG_ERR, LOG_WARNING, LOG_INFO or LOG_DEBUG. A line that the sink does not take
// is dropped; one that does not read holds a line up once, for half a second.
void ProcMgrLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// As above, but to syslog whatever the mode: for lines that must not fill the kernel log.
void ProcMgrSysLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Opens syslog under the daemon's identity; closes it.
void OpenLog();
void CloseLog();

// Holds the log's lock across a fork, so that no other thread can own it, or libc's time-zone lock
// on its behalf, at that moment. Destroyed on both sides.
class LogForkGuard {
public:
    LogForkGuard();
    ~LogForkGuard();
    LogForkGuard(const LogForkGuard&) = delete;
    LogForkGuard& operator=(const LogForkGuard&) = delete;
};

}  // namespace ProcMgr
