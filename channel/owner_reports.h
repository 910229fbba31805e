// The only ways in which state is reported to an owner or to the access manager. Callable from any
// thread; a report to an owner whose pipe is full blocks for 2 s at most.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "app/owner_link.h"
#include "message/request_msg.h"

namespace ProcMgr {

class OwnerReports final : public App::StateReports {
public:
    explicit OwnerReports(const App::OwnerRegistry& pipes) : pipes_(pipes) {}

    bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                        const std::string& owner) const override;

    void ReportAppStateToZorn(const App::AppInfo& app, uint32_t reportType,
                              uint32_t result) const override;

    bool ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                               const std::string& owner) const override;

    // Reports the daemon itself to the access manager.
    void RegisterVfs() const;

    // Passes on to the access manager what `vintor` says about an application that it runs.
    void RelayAppExecution(const Message::AppExecInfo& info) const;

    // Sends every record in order; what was sent before a failure stays sent.
    static bool SendRequestMsg(int fd, const std::vector<Message::RequestMsg>& records);

private:
    const App::OwnerRegistry& pipes_;
};

}  // namespace ProcMgr
