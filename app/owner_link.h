// The interfaces of the message channel for the code that starts and supervises applications: the
// registration of owners and the reports to them. The channel implements both.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "message/request_msg.h"

namespace ProcMgr::App {

// The report about an application.
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

// The report type that describes the present state of an application, without a change of it.
inline ReportAppStateType PresentStateOf(const AppInfo& app) {
    switch (app.GetState()) {
        case STARTING:
        case RUNNING:
            return RUNNING_NORMAL_START;
        case TERMINATED:
            return app.reportType_;
        default:
            return INVALID_INTERMEDIATE_STATE;
    }
}

// Callable from any thread and, unless a function states otherwise, without a container's lock.
class OwnerRegistry {
public:
    virtual ~OwnerRegistry() = default;

    // Opens the pipe to `owner`, whose process is `pid`; `gid` becomes the group of the pipe's
    // file. A pipe of this name that is still open is closed first. While a request on the old pipe
    // is being handled, the opening of the new one is postponed. False, with a log line, on
    // failure.
    virtual bool RegServiceCallBack(const std::string& owner, uint32_t gid, int32_t pid) = 0;

    // Marks the owner as not open and closes its pipe: at once, or after the request that is being
    // handled on it.
    virtual void UnRegServiceCallBack(const std::string& owner) = 0;

    // The descriptor of the owner's pipe; -1 for an owner that is unknown or not open. The caller
    // may hold any lock.
    virtual int GetServiceFd(const std::string& owner) const = 0;
};

// Callable from any thread. A report is queued under the lock of the container, which orders the
// changes, and sent by Flush() after the lock has been released. No function waits for an owner.
class StateReports {
public:
    virtual ~StateReports() = default;

    // Queues `infos` for `owner`. True when they are queued, and when there are none. False, with a
    // log line, when the owner has no open pipe; the states are sent when it has one again.
    virtual bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                                const std::string& owner) = 0;

    // The same for changes of general applications. `isAnswer` marks the answer to a request of the
    // owner.
    virtual bool ReportAppChanges(const std::vector<Message::AppStateInfo>& infos,
                                  const std::string& owner, bool isAnswer) = 0;

    // Queues the answer to a query, by name: 0 alive, 1 ended or unknown, 2 stopped. True when the
    // answer is queued, and when there is nothing to send.
    virtual bool ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                                       const std::string& owner) = 0;

    // Queues a report of one application for the access manager, unless the application is the
    // access manager.
    virtual void ReportAppStateToZorn(const AppInfo& app, uint32_t reportType, uint32_t result) = 0;

    // Sends the queued reports that the pipes take without waiting. Not with a lock held.
    virtual void Flush() = 0;
};

}  // namespace ProcMgr::App
