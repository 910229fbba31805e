// The only ways in which state is reported to an owner or to the access manager. Callable from any
// thread; a report to an owner whose pipe is full blocks for 2 s at most.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "app/owner_link.h"
#include "message/request_msg.h"
#include "platform/messaging.h"

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

    // Sends every record in order; what was sent before a failure stays sent. A peer that has once
    // been waited for in vain is not waited for again before it has taken a record: it must not
    // hold up what is due to the others.
    bool SendRequestMsg(int fd, const std::vector<Message::RequestMsg>& records) const;

private:
    int SendOne(int fd, const MuxaRequest& request) const;

    const App::OwnerRegistry& pipes_;
    mutable std::mutex mutex_;
    mutable std::set<int> stuck_;  // pipes whose peer does not read; guarded by mutex_
};

}  // namespace ProcMgr
