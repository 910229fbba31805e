// Queues all reports of states to owners and to the access manager, in the order of the calls;
// Flush() sends them. All functions are callable from any thread; all but Flush() may be called
// with any lock held.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "app/owner_link.h"
#include "channel/owner_pipes.h"
#include "channel/report_sender.h"
#include "message/request_msg.h"

namespace ProcMgr {

class OwnerReports final : public App::StateReports {
public:
    // Both must outlive this object.
    OwnerReports(const OwnerPipes& pipes, ReportSender& sender) : pipes_(pipes), sender_(sender) {}

    bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                        const std::string& owner) override;
    bool ReportAppChanges(const std::vector<Message::AppStateInfo>& infos, const std::string& owner,
                          bool isAnswer) override;
    void ReportAppStateToZorn(const App::AppInfo& app, uint32_t reportType,
                              uint32_t result) override;
    bool ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                               const std::string& owner) override;
    void Flush() override { sender_.Flush(); }

    // Reports to the access manager that the daemon itself runs.
    void RegisterVfs();

private:
    // Queues the report. False, with a log line, when it does not fit into a record or the owner
    // has no pipe.
    bool Report(ProcMgr::Report report, const std::string& owner);

    const OwnerPipes& pipes_;
    ReportSender& sender_;
};

}  // namespace ProcMgr
