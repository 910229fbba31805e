#include "app/scheduler_workers.h"

#include <dirent.h>

#include <array>
#include <csignal>
#include <optional>
#include <string_view>
#include <vector>

#include "app/signals.h"
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
