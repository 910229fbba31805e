#include "main/log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "main/constants.h"
#include "main/proc_mgr_env.h"

namespace ProcMgr {
namespace {

constexpr const char* KERNEL_LOG = "/dev/kmsg";

// Guards both sinks. Never destroyed: threads of libraries may log until the very end.
std::mutex& LogMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

void WriteKernelLog(int level, const char* format, va_list arguments) {
    FILE* file = std::fopen(KERNEL_LOG, "a+e");
    if (file == nullptr) {
        return;
    }
    std::fprintf(file, "<%d> PROCMGR[%d] ", level, ProcMgrEnv::GetInstance().GetPid());
    std::vfprintf(file, format, arguments);
    std::fclose(file);
}

}  // namespace

void ProcMgrLog(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    {
        const std::lock_guard lock(LogMutex());
        if (ProcMgrEnv::GetInstance().IsQuickStart()) {
            WriteKernelLog(level, format, arguments);
        } else {
            vsyslog(level, format, arguments);
        }
    }
    va_end(arguments);
}

void ProcMgrSysLog(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    {
        const std::lock_guard lock(LogMutex());
        vsyslog(level, format, arguments);
    }
    va_end(arguments);
}

void OpenLog() {
    openlog(PROCMGR_NAME, LOG_PID, LOG_USER);
}

void CloseLog() {
    const std::lock_guard lock(LogMutex());
    closelog();
}

LogForkGuard::LogForkGuard() {
    LogMutex().lock();
}

LogForkGuard::~LogForkGuard() {
    LogMutex().unlock();
}

}  // namespace ProcMgr
