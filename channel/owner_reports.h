// The only ways in which state is reported to an owner or to the access manager. Callable from any
// thread; a report to an owner whose pipe is full blocks for 2 s at most.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "channel/owner_pipes.h"
#include "message/request_msg.h"

namespace ProcMgr {

class OwnerReports {
public:
    explicit OwnerReports(const OwnerPipes& pipes) : pipes_(pipes) {}

    // Reports `infos` to `owner`. True when all were sent, or when there are none.
    bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                        const std::string& owner) const;

    // Reports one application to the access manager, unless it is the access manager.
    void ReportAppStateToZorn(const App::AppInfo& app, uint32_t reportType, uint32_t result) const;

    // Sends every record in order; what was sent before a failure stays sent.
    static bool SendRequestMsg(int fd, const std::vector<Message::RequestMsg>& records);

private:
    const OwnerPipes& pipes_;
};

}  // namespace ProcMgr
