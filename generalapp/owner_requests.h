// The effect of every request that an owner can send: operations on general applications, the load
// of start-up configuration files, reports of services about themselves and about applications that
// they run, delayed core affinity. Called by the request dispatch on threads of the messaging
// library, several at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "channel/request_dispatch.h"

namespace ProcMgr {

class CoreAffinityMgr;
class DelayCoreAffinity;
class GeneralApps;
class Readiness;
class StartupConfig;
namespace App {
class StateReports;
}

class OwnerRequests final : public RequestHandlers {
public:
    // All must outlive the handlers.
    struct Parts {
        GeneralApps& generalApps;
        StartupConfig& startupConfig;
        Readiness& readiness;
        App::StateReports& reports;
        DelayCoreAffinity& delayCoreAffinity;
        CoreAffinityMgr& coreAffinity;
    };

    explicit OwnerRequests(const Parts& parts) : parts_(parts) {}

    void StartApp(const std::vector<Message::StartAppInfo>& items,
                  const std::string& owner) override;
    void RestartApp(const std::vector<Message::RestartAppInfo>& items,
                    const std::string& owner) override;
    void TermApp(const std::vector<Message::TermAppInfo>& items, const std::string& owner) override;
    void QueryAppState(const std::vector<std::string>& names, const std::string& owner) override;
    void ReportBaseServiceState(const Message::BaseServiceStateInfo& info,
                                const std::string& owner) override;
    // Relays the report to the access manager. Only `vintor` runs applications by itself; the
    // report of any other owner is refused.
    void ReportAppExecution(const Message::AppExecInfo& info, const std::string& owner) override;
    // Both start the priority applications of the file when it could be loaded.
    void LoadStartupCfg(const Message::StartupCfgInfo& info, const std::string& owner,
                        int32_t fd) override;
    void ReloadStartupCfg(const Message::StartupCfgInfo& info, const std::string& owner,
                          int32_t fd) override;
    uint32_t SetDelayCoreAffinity(const Message::DelayCoreAffinityReq& request) override;

private:
    struct CfgRequest;
    void LoadCfg(const CfgRequest& request, const Message::StartupCfgInfo& info, int32_t fd);

    const Parts parts_;
};

}  // namespace ProcMgr
