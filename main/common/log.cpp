#include "main/common/log.h"

#include <atomic>
#include <cstdarg>
#include <ctime>
#include <utility>

#include "main/common/log_queue.h"

namespace ProcMgr {
namespace {

std::atomic<bool> g_isKernel{false};
std::atomic<bool> g_isOff{false};

// The limit of the calling thread; null when it has none.
thread_local LogLimit* g_limit = nullptr;

void Add(LogSink sink, int level, const char* format, va_list arguments) {
    if (!g_isOff && LogLimit::Take(level)) {
        LogQueue::Add(sink, level, format, arguments);
    }
}

}  // namespace

void ProcMgrLog(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Add(g_isKernel ? LogSink::KERNEL : LogSink::SYSTEM, level, format, arguments);
    va_end(arguments);
}

void ProcMgrSysLog(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Add(LogSink::SYSTEM, level, format, arguments);
    va_end(arguments);
}

bool LogServiceLine(const char* name, pid_t pid, std::string_view text) {
    return LogQueue::AddOfService(name, pid, text);
}

void SetLogToKernel(bool isKernel) {
    g_isKernel = isKernel;
}

void SwitchLogOff() {
    g_isOff = true;
}

void OpenLog() {
    // Reads the file of the time zone now, because the first line would do so under the log's lock.
    tzset();
    openlog(PROCMGR_NAME, LOG_PID, LOG_USER);
}

void CloseLog(std::chrono::milliseconds patience) {
    LogQueue::Close(patience);
    closelog();
}

void LookForLogger() {
    LogQueue::LookForLogger();
}

bool IsLoggerMissing() {
    return LogQueue::IsLoggerMissing();
}

uint64_t CountDroppedLogLines() {
    return LogQueue::CountDropped();
}

void WriteLogInSignal() {
    LogQueue::WriteInSignal();
}

LogLimit::LogLimit(const char* subject) : subject_(subject) {
    g_limit = this;
}

LogLimit::~LogLimit() {
    g_limit = nullptr;
    if (leftOut_ > 0) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : %zu more lines about a request of %s are left out",
                   leftOut_, subject_);
    }
}

LogLimit::Pause::Pause() : limit_(std::exchange(g_limit, nullptr)) {}

LogLimit::Pause::~Pause() {
    g_limit = limit_;
}

bool LogLimit::Take(int level) {
    if (g_limit == nullptr) {
        return true;
    }
    const bool isProblem = level <= LOG_WARNING;
    size_t& used = isProblem ? g_limit->problems_ : g_limit->notes_;
    if (used < (isProblem ? PROBLEMS_MAX : NOTES_MAX)) {
        ++used;
        return true;
    }
    ++g_limit->leftOut_;
    return false;
}

}  // namespace ProcMgr
