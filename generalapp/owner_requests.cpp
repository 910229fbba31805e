#include "generalapp/owner_requests.h"

#include <malloc.h>

#include "app/app_spec.h"
#include "app/owner_link.h"
#include "baseservice/readiness.h"
#include "generalapp/general_apps.h"
#include "generalapp/startup_config.h"
#include "main/common/boot_trace.h"
#include "main/common/log.h"
#include "message/enum_names.h"
#include "resource/core_affinity_mgr.h"
#include "resource/delay_core_affinity.h"

namespace ProcMgr {

// The difference between a load and a reload: the operation and its names in the log.
struct OwnerRequests::CfgRequest {
    uint32_t (StartupConfig::*load)(const std::string& path,
                                    const StartupConfig::MatchData& matchData);
    // Formats of the log lines.
    const char* received;  // takes stamp and path
    const char* failed;    // takes path
    const char* finished;  // takes stamp, result and descriptor
};

void OwnerRequests::StartApp(const std::vector<Message::StartAppInfo>& items,
                             const std::string& owner) {
    parts_.generalApps.StartApp(items, owner);
}

void OwnerRequests::RestartApp(const std::vector<Message::RestartAppInfo>& items,
                               const std::string& owner) {
    parts_.generalApps.RestartApp(items, owner);
}

void OwnerRequests::TermApp(const std::vector<Message::TermAppInfo>& items,
                            const std::string& owner) {
    parts_.generalApps.TermGeneralApp(items, owner);
}

void OwnerRequests::QueryAppState(const std::vector<std::string>& names, const std::string& owner) {
    parts_.generalApps.QueryAppState(names, owner);
}

void OwnerRequests::ReportBaseServiceState(const Message::BaseServiceStateInfo& info,
                                           const std::string& owner) {
    parts_.readiness.HandleBaseServiceState(owner, static_cast<BaseServiceStateType>(info.state));
}

void OwnerRequests::ReportAppExecution(const Message::AppExecInfo& info, const std::string& owner) {
    if (owner != PROC_VINTOR) {
        ProcMgrLog(LOG_ERR, "PROCMGR : APP_EXECUTION_REPORT of owner=%s is refused", owner.c_str());
        return;
    }
    ProcMgrLog(LOG_INFO,
               "%s PM receive APP_EXECUTION_REPORT msg from vintor report appName=%s, pid=%u, "
               "gid=%u, state=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), info.appName.c_str(), info.pid, info.gid,
               GetAppExecStateStr(info.state).c_str());
    Message::AppStateInfo item;
    item.appName = info.appName;
    item.pid = info.pid;
    item.gid = info.gid;
    item.reportType = info.state != 0 ? TERMINATED_NORMAL_EXIT : RUNNING_NORMAL_START;
    if (info.state != 0) {
        parts_.coreAffinity.RecycleThreadCoreInfo(static_cast<int32_t>(info.pid), info.appName);
    }
    parts_.reports.ReportAppState({item}, PROC_ZORNMGR);
    parts_.reports.Flush();
}

void OwnerRequests::LoadStartupCfg(const Message::StartupCfgInfo& info,
                                   const std::string& /*owner*/, int32_t fd) {
    LoadCfg({&StartupConfig::LoadStartCfgInfo, "%s PM receive LOAD_STARTUP_CFG msg load file=%s",
             "LoadStartCfgInfo failed, path=%s", "%s LoadStartCfgInfo finish ret=0x%X, fd=%d"},
            info, fd);
}

void OwnerRequests::ReloadStartupCfg(const Message::StartupCfgInfo& info,
                                     const std::string& /*owner*/, int32_t fd) {
    LoadCfg(
        {&StartupConfig::ReLoadStartCfgInfo, "%s PM receive RELOAD_STARTUP_CFG msg load file=%s",
         "ReLoadStartCfgInfo failed, path=%s", "%s ReLoadStartCfgInfo finish ret=0x%X, fd=%d"},
        info, fd);
}

void OwnerRequests::LoadCfg(const CfgRequest& request, const Message::StartupCfgInfo& info,
                            int32_t fd) {
    ProcMgrLog(LOG_INFO, request.received, BootStrace(BOOT_TRACE_TAG).c_str(), info.path.c_str());
    const uint32_t ret = (parts_.startupConfig.*request.load)(info.path, info.matchData);
    if (ret != StartupConfig::OK) {
        ProcMgrLog(LOG_ERR, request.failed, info.path.c_str());
    }
    ProcMgrLog(LOG_INFO, request.finished, BootStrace(BOOT_TRACE_TAG).c_str(), ret, fd);
    if (ret == StartupConfig::OK) {
        parts_.generalApps.StartPriorityApps(info.path);
    }
    // Parsing leaves many small free blocks, of whose pages free() alone gives few back. The daemon
    // runs for ever and seldom parses.
    malloc_trim(0);
}

uint32_t OwnerRequests::SetDelayCoreAffinity(const Message::DelayCoreAffinityReq& request) {
    return parts_.delayCoreAffinity.SetDelayCoreAffinity(request);
}

}  // namespace ProcMgr
