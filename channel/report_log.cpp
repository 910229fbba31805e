#include "channel/report_log.h"

#include <syslog.h>

#include <algorithm>

#include "main/common/boot_trace.h"
#include "main/common/log.h"
#include "message/enum_names.h"

namespace ProcMgr {
namespace {

// An answer holds as many applications as its request has named, so the lines about one answer are
// bounded: for applications without a process, and for those with one.
constexpr size_t UNKNOWN_LINES_MAX = 8;
constexpr size_t KNOWN_LINES_MAX = 64;

void LogLeftOut(size_t count, const std::string& owner) {
    if (count > 0) {
        ProcMgrLog(LOG_INFO, "PROCMGR : %zu more states are reported to %s in the same answer",
                   count, owner.c_str());
    }
}

void LogStates(const Report& report, const std::string& owner) {
    size_t unknown = 0;
    size_t known = 0;
    size_t leftOut = 0;
    for (const Message::AppStateInfo& state : report.states) {
        const bool isRoom = !report.isAnswer || (state.pid == 0 ? ++unknown <= UNKNOWN_LINES_MAX
                                                                : ++known <= KNOWN_LINES_MAX);
        if (!isRoom) {
            ++leftOut;
            continue;
        }
        ProcMgrLog(LOG_INFO, "%s PM report appState to %s, appState=%s, appName=%s, pid=%u",
                   BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str(),
                   GetReportAppStateTypeStr(state.reportType).c_str(), state.appName.c_str(),
                   state.pid);
    }
    LogLeftOut(leftOut, owner);
}

void LogStatuses(const Report& report, const std::string& owner) {
    size_t lines = 0;
    for (const auto& [name, status] : report.statuses) {
        if (++lines <= KNOWN_LINES_MAX) {
            ProcMgrLog(LOG_INFO, "%s PM ReportAppDetailStatus to %s, appName=%s, status=%u",
                       BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str(), name.c_str(), status);
        }
    }
    LogLeftOut(lines - std::min(lines, KNOWN_LINES_MAX), owner);
}

void LogFailedCause(const Report& report, const std::string& owner) {
    switch (report.cause) {
        case ReportCause::PLAIN:
            return;
        case ReportCause::STATE_TO_ZORN:
            ProcMgrLog(LOG_ERR, "PROCMGR : report %s's state: %d to zornmgr failed",
                       report.states.front().appName.c_str(),
                       static_cast<int>(report.states.front().reportType));
            return;
        case ReportCause::CHANGES_TO_ZORN:
            ProcMgrLog(LOG_ERR,
                       "PROCMGR : CheckThread : report general apps' changes to ZORN failed");
            return;
        case ReportCause::CHANGES_TO_OWNER:
            ProcMgrLog(LOG_ERR,
                       "PROCMGR : CheckThread : report general apps' changes to owner %s failed",
                       owner.c_str());
            return;
        case ReportCause::SELF:
            ProcMgrLog(LOG_ERR, "PROCMGR failed: RegisterVfs ReportAppState failed");
            return;
    }
}

}  // namespace

void LogSent(const Report& report, const std::string& owner) {
    LogStatuses(report, owner);
    LogStates(report, owner);
    if (report.cause == ReportCause::STATE_TO_ZORN) {
        ProcMgrLog(LOG_INFO, "PROCMGR : report %s's state: %d to zornmgr successfully",
                   report.states.front().appName.c_str(),
                   static_cast<int>(report.states.front().reportType));
    }
}

void LogNoPipe(const Report& report, const std::string& owner) {
    if (report.statuses.empty()) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Master ReportAppState failed: invalid fd, owner=%s",
                   owner.c_str());
    } else {
        ProcMgrLog(LOG_ERR, "PROCMGR : Master ReportAppDetailStatus: invalid fd, owner=%s",
                   owner.c_str());
    }
    LogFailedCause(report, owner);
}

void LogNotSent(const Report& report, const std::string& owner, int fd, int result) {
    ProcMgrLog(LOG_ERR, "PROCMGR : Master SendRequestMsg failed, err code=%d, fd=%d", result, fd);
    if (report.statuses.empty()) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Master ReportAppState failed: SendRequestMsg %s failed, fd:%d",
                   owner.c_str(), fd);
    } else {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Master ReportAppDetailStatus: SendRequestMsg %s failed, fd:%d",
                   owner.c_str(), fd);
    }
    LogFailedCause(report, owner);
}

void LogNotPacked(const std::string& owner) {
    ProcMgrLog(LOG_ERR,
               "PROCMGR : Master ReportAppState failed: PackAppStateRequest failed, owner=%s",
               owner.c_str());
}

void LogNotCombined(const std::string& owner) {
    ProcMgrLog(LOG_ERR, "PROCMGR : Master ReportAppState failed: CombinePiecesMsg failed, owner=%s",
               owner.c_str());
}

}  // namespace ProcMgr
