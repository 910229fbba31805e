#include "app/signals.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>
#include <string_view>

#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/line_reader.h"
#include "main/log.h"

namespace ProcMgr::App {
namespace {

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

using StatusMap = std::map<std::string, std::string>;

// The lines "key:<white space>value" of a process's status file; empty when it is gone.
StatusMap ReadStatus(const std::string& pid) {
    StatusMap status;
    LineReader file(PROC_DIR + pid + "/status");
    while (const auto line = file.Next()) {
        const size_t colon = line->find(':');
        if (colon == std::string_view::npos) {
            continue;
        }
        const size_t value = std::min(line->find_first_not_of(" \t", colon + 1), line->size());
        status.insert_or_assign(std::string(line->substr(0, colon)), line->substr(value));
    }
    return status;
}

bool IsProcessName(const StatusMap& status, const std::string& name) {
    const auto entry = status.find("Name");
    return entry != status.end() && entry->second == name;
}

void KillWorker(const std::string& entryName, const std::string& rqdPid) {
    const auto pid = static_cast<int32_t>(std::strtol(entryName.c_str(), nullptr, 10));
    StatusMap status = ReadStatus(entryName);
    if (!IsProcessName(status, SCHEDULER_PROCESS)) {
        return;
    }
    const std::string& parent = status["PPid"];
    if (parent != rqdPid && parent != INIT_PID) {
        return;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : TermRqdSubProc kill process %s(ppid=%s, pid=%d)",
               SCHEDULER_PROCESS, parent.c_str(), pid);
    SendSignal(SIGKILL, SCHEDULER_PROCESS, pid);
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
    if (!IsProcessName(ReadStatus(pid), SCHEDULER_PROCESS)) {
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
