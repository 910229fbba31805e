// The only ways in which state is reported to an owner or to the access manager. Callable from any
// thread; a report to an owner whose pipe is full blocks for 2 s at most.
#pragma once

#include <cstdint>
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

    // Sends every record in order; what was sent before a failure stays sent.
    static bool SendRequestMsg(int fd, const std::vector<Message::RequestMsg>& records);

private:
    const App::OwnerRegistry& pipes_;
};

}  // namespace ProcMgr
