// What starting and supervising applications needs of the message channel: the registration of
// owners, and the reports to them. The channel implements both.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "message/request_msg.h"

namespace ProcMgr::App {

// What is reported about an application.
inline Message::AppStateInfo MakeStateInfo(const AppInfo& app, uint32_t reportType,
                                           uint32_t result) {
    Message::AppStateInfo info;
    info.appName = app.appName_;
    info.pid = static_cast<uint32_t>(app.pid_);
    info.gid = app.gid_;
    info.reportType = reportType;
    info.result = result;
    return info;
}

// What is reported about an application that nothing has just happened to.
inline ReportAppStateType PresentStateOf(const AppInfo& app) {
    switch (app.state_) {
        case STARTING:
        case RUNNING:
            return RUNNING_NORMAL_START;
        case TERMINATED:
            return app.reportType_;
        default:
            return INVALID_INTERMEDIATE_STATE;
    }
}

// Callable from any thread; may block while a request of the owner is being handled, so never
// called with a container's lock held.
class OwnerRegistry {
public:
    virtual ~OwnerRegistry() = default;

    // Opens the pipe to `owner`, whose peer must have `gid` or be root. A pipe of that name that is
    // still open is closed first. False, with a log line, on failure.
    virtual bool RegServiceCallBack(const std::string& owner, uint32_t gid) = 0;

    // Marks the owner not open and closes its pipe.
    virtual void UnRegServiceCallBack(const std::string& owner) = 0;

    // The pipe's descriptor; -1 for an owner that is unknown or not open.
    virtual int GetServiceFd(const std::string& owner) const = 0;
};

// Callable from any thread; a report to an owner whose pipe is full blocks for 2 s at most, so
// never called with a container's lock held.
class StateReports {
public:
    virtual ~StateReports() = default;

    // Reports `infos` to `owner`. True when all were sent, or when there are none.
    virtual bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                                const std::string& owner) const = 0;

    // Answers a query: 0 alive, 1 gone or unknown, 2 stopped. True when it was sent, or when there
    // is nothing to send.
    virtual bool ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                                       const std::string& owner) const = 0;

    // Reports one application to the access manager, unless it is the access manager.
    virtual void ReportAppStateToZorn(const AppInfo& app, uint32_t reportType,
                                      uint32_t result) const = 0;
};

}  // namespace ProcMgr::App
