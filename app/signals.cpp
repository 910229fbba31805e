#include "app/signals.h"

#include <array>
#include <cerrno>
#include <csignal>

#include "main/common/log.h"

namespace ProcMgr::App {
namespace {

struct SentText {
    int signal;
    const char* format;  // takes name and pid
};

constexpr std::array SENT_TEXTS = {
    SentText{SIGTERM, "PROCMGR : SendSignal: Successfully term appName=%s, pid=%d"},
    SentText{SIGKILL, "PROCMGR : SendSignal: Successfully kill appName=%s, pid=%d"},
    SentText{SIGINT, "PROCMGR : SendSignal: Successfully interrupt appName=%s, pid=%d"},
};

void LogSent(int signal, const std::string& appName, int32_t pid) {
    for (const SentText& text : SENT_TEXTS) {
        if (text.signal == signal) {
            ProcMgrLog(LOG_INFO, text.format, appName.c_str(), pid);
            return;
        }
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : SendSignal: Successfully send %d to appName=%s, pid=%d", signal,
               appName.c_str(), pid);
}

}  // namespace

bool SendSignal(int signal, const std::string& appName, int32_t pid) {
    if (pid < 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : SendSignal failed: appName %s's pid=%d is invalid",
                   appName.c_str(), pid);
        return false;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : SendSignal: %d to app=%s, pid=%d", signal, appName.c_str(),
               pid);
    if (kill(pid, signal) != 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR : SendSignal failed: kill failed appName=%s, pid=%d, errno=%d",
                   appName.c_str(), pid, errno);
        return false;
    }
    LogSent(signal, appName, pid);
    return true;
}

}  // namespace ProcMgr::App
