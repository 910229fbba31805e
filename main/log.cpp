#include "main/log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "main/constants.h"
#include "main/proc_mgr_env.h"
#include "main/system_logger.h"

namespace ProcMgr {
namespace {

constexpr const char* KERNEL_LOG = "/dev/kmsg";

struct Sinks {
    std::mutex mutex;  // guards all that follows, and the file of the kernel log
    SystemLogger logger;
    std::array<char, 8192> text{};
};

// Never destroyed: threads of libraries may log until the very end.
Sinks& GetSinks() {
    static auto* sinks = new Sinks;
    return *sinks;
}

void WriteSystemLog(int level, const char* format, va_list arguments) {
    auto& [mutex, logger, text] = GetSinks();
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    logger.Write(
        level, {text.data(), std::min(static_cast<size_t>(std::max(length, 0)), text.size() - 1)});
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
        const std::lock_guard lock(GetSinks().mutex);
        if (ProcMgrEnv::GetInstance().IsQuickStart()) {
            WriteKernelLog(level, format, arguments);
        } else {
            WriteSystemLog(level, format, arguments);
        }
    }
    va_end(arguments);
}

void ProcMgrSysLog(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    {
        const std::lock_guard lock(GetSinks().mutex);
        WriteSystemLog(level, format, arguments);
    }
    va_end(arguments);
}

void OpenLog() {
    // For what libraries write to syslog themselves.
    openlog(PROCMGR_NAME, LOG_PID, LOG_USER);
}

void CloseLog() {
    const std::lock_guard lock(GetSinks().mutex);
    GetSinks().logger.Close();
    closelog();
}

LogForkGuard::LogForkGuard() {
    GetSinks().mutex.lock();
}

LogForkGuard::~LogForkGuard() {
    GetSinks().mutex.unlock();
}

}  // namespace ProcMgr
