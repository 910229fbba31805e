#include "app/signals.h"

#include <dirent.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string_view>
#include <vector>

#include "main/common/boot_trace.h"
#include "main/common/log.h"
#include "main/common/numbers.h"
#include "main/common/proc_files.h"

namespace ProcMgr::App {
namespace {

using namespace std::string_view_literals;

constexpr const char* SCHEDULER_APP = "RqDaemon";
constexpr const char* SCHEDULER_PROCESS = "rqdaemon";
constexpr const char* INIT_PID = "1";

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

// Name and parent of a process; nothing when it is gone.
std::optional<std::vector<std::string>> ReadNameAndParent(const std::string& pid) {
    return ReadStatusFields(PROC_DIR + pid + "/status", std::array{"Name"sv, "PPid"sv});
}

void KillWorker(const std::string& entryName, const std::string& rqdPid) {
    const auto pid = ParseNumber<int32_t>(entryName);
    const auto fields = pid ? ReadNameAndParent(entryName) : std::nullopt;
    if (!fields || fields->front() != SCHEDULER_PROCESS) {
        return;
    }
    const std::string& parent = fields->back();
    if (parent != rqdPid && parent != INIT_PID) {
        return;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : TermRqdSubProc kill process %s(ppid=%s, pid=%d)",
               SCHEDULER_PROCESS, parent.c_str(), *pid);
    SendSignal(SIGKILL, SCHEDULER_PROCESS, *pid);
}

// False when the processes cannot be listed.
bool KillWorkers(const std::string& rqdPid) {
    DIR* directory = opendir(PROC_DIR);
    if (directory == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR: TermRqdSubProc open %s fail", PROC_DIR);
        return false;
    }
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_type == DT_DIR && entry->d_name != rqdPid) {
            KillWorker(entry->d_name, rqdPid);
        }
    }
    if (closedir(directory) != 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR: TermRqdSubProc close %s fail", PROC_DIR);
    }
    return true;
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

void TermRqdSubProc(const std::string& appName, int32_t rqdPid) {
    if (appName != SCHEDULER_APP) {
        return;
    }
    ProcMgrLog(LOG_INFO, "%s, PROCMGR: TermRqdSubProc begin, rqdPid=%d",
               BootStrace(BOOT_TRACE_TAG).c_str(), rqdPid);
    const std::string pid = std::to_string(rqdPid);
    const auto fields = ReadNameAndParent(pid);
    if (!fields || fields->front() != SCHEDULER_PROCESS) {
        ProcMgrLog(LOG_ERR, "PROCMGR : TermRqdSubProc failed: appName %s's pid=%d is invalid",
                   appName.c_str(), rqdPid);
        return;
    }
    if (KillWorkers(pid)) {
        ProcMgrLog(LOG_INFO, "%s, PROCMGR: TermRqdSubProc end, rqdPid=%d",
                   BootStrace(BOOT_TRACE_TAG).c_str(), rqdPid);
    }
}

}  // namespace ProcMgr::App
