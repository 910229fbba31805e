#include "channel/owner_reports.h"

#include <unistd.h>

#include <utility>

#include "main/muxa_retry.h"
#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/log.h"
#include "message/serialization.h"
#include "resource/core_affinity_mgr.h"

namespace ProcMgr {

using Message::AppStateInfo;
using Message::RequestMsg;

int OwnerReports::SendOne(int fd, const MuxaRequest& request) const {
    bool isStuck = false;
    {
        const std::lock_guard lock(mutex_);
        isStuck = stuck_.contains(fd);
    }
    const int result =
        isStuck ? MuxaSendRequest(fd, &request) : ProcMgrMuxaSendRequest(fd, &request);
    const std::lock_guard lock(mutex_);
    if (result == MUXA_TRY_AGAIN) {
        stuck_.insert(fd);
    } else {
        stuck_.erase(fd);
    }
    return result;
}

bool OwnerReports::SendRequestMsg(int fd, const std::vector<RequestMsg>& records) const {
    if (records.empty()) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Master SendRequestMsg failed: RequestPieceMsg is empty");
        return false;
    }
    for (const RequestMsg& record : records) {
        MuxaRequest request;
        request.data = &record;
        request.length = sizeof(record);
        const int result = SendOne(fd, request);
        if (result < 0) {
            ProcMgrLog(LOG_ERR, "PROCMGR : Master SendRequestMsg failed, err code=%d, fd=%d",
                       result, fd);
            return false;
        }
    }
    return true;
}

bool OwnerReports::ReportAppState(const std::vector<AppStateInfo>& infos,
                                  const std::string& owner) const {
    if (infos.empty()) {
        return true;
    }
    std::vector<std::pair<uint32_t, std::string>> pieces;
    if (!Serialization::ProcMgrPackAppStateRequest(infos, pieces)) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Master ReportAppState failed: PackAppStateRequest failed, owner=%s",
                   owner.c_str());
        return false;
    }
    std::vector<RequestMsg> records;
    if (!Serialization::ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, pieces, records)) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Master ReportAppState failed: CombinePiecesMsg failed, owner=%s",
                   owner.c_str());
        return false;
    }
    const int fd = pipes_.GetServiceFd(owner);
    if (fd < 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Master ReportAppState failed: invalid fd, owner=%s",
                   owner.c_str());
        return false;
    }
    if (!SendRequestMsg(fd, records)) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Master ReportAppState failed: SendRequestMsg %s failed, fd:%d",
                   owner.c_str(), fd);
        return false;
    }
    for (const AppStateInfo& info : infos) {
        ProcMgrLog(LOG_INFO, "%s PM report appState to %s, appState=%s, appName=%s, pid=%u",
                   BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str(),
                   GetReportAppStateTypeStr(info.reportType).c_str(), info.appName.c_str(),
                   info.pid);
    }
    return true;
}

void OwnerReports::ReportAppStateToZorn(const App::AppInfo& app, uint32_t reportType,
                                        uint32_t result) const {
    if (app.appName_ == PROC_ZORNMGR) {
        return;
    }
    if (ReportAppState({App::MakeStateInfo(app, reportType, result)}, PROC_ZORNMGR)) {
        ProcMgrLog(LOG_INFO, "PROCMGR : report %s's state: %d to zornmgr successfully",
                   app.appName_.c_str(), static_cast<int>(reportType));
        return;
    }
    ProcMgrLog(LOG_ERR, "PROCMGR : report %s's state: %d to zornmgr failed", app.appName_.c_str(),
               static_cast<int>(reportType));
}

bool OwnerReports::ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                                         const std::string& owner) const {
    if (statusByName.empty()) {
        return true;
    }
    std::vector<RequestMsg> records(1);
    if (!Serialization::EncodeDetailStatus(statusByName, records.front())) {
        ProcMgrLog(LOG_ERR, "PROCMGR : ReportAppDetailStatus SerializeMessage failed");
        return false;
    }
    const int fd = pipes_.GetServiceFd(owner);
    if (fd < 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Master ReportAppDetailStatus: invalid fd, owner=%s",
                   owner.c_str());
        return false;
    }
    if (!SendRequestMsg(fd, records)) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Master ReportAppDetailStatus: SendRequestMsg %s failed, fd:%d",
                   owner.c_str(), fd);
        return false;
    }
    for (const auto& [name, status] : statusByName) {
        ProcMgrLog(LOG_INFO, "%s PM ReportAppDetailStatus to %s, appName=%s, status=%u",
                   BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str(), name.c_str(), status);
    }
    return true;
}

void OwnerReports::RegisterVfs() const {
    AppStateInfo self;
    self.appName = PROCMGR_NAME;
    self.pid = static_cast<uint32_t>(getpid());
    self.gid = getgid();
    self.reportType = RUNNING_NORMAL_START;
    if (!ReportAppState({self}, PROC_ZORNMGR)) {
        ProcMgrLog(LOG_ERR, "PROCMGR failed: RegisterVfs ReportAppState failed");
    }
}

void OwnerReports::RelayAppExecution(const Message::AppExecInfo& info) const {
    ProcMgrLog(LOG_INFO,
               "%s PM receive APP_EXECUTION_REPORT msg from vintor report appName=%s, pid=%u, "
               "gid=%u, state=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), info.appName.c_str(), info.pid, info.gid,
               GetAppExecStateStr(info.state).c_str());
    AppStateInfo item;
    item.appName = info.appName;
    item.pid = info.pid;
    item.gid = info.gid;
    item.reportType = info.state != 0 ? TERMINATED_NORMAL_EXIT : RUNNING_NORMAL_START;
    if (info.state != 0) {
        CoreAffinityMgr::GetInstance().RecycleThreadCoreInfo(static_cast<int32_t>(info.pid),
                                                             info.appName);
    }
    ReportAppState({item}, PROC_ZORNMGR);
}

}  // namespace ProcMgr
