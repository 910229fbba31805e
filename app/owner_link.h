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

// Callable from any thread, never with a container's lock held.
class OwnerRegistry {
public:
    virtual ~OwnerRegistry() = default;

    // Opens the pipe to `owner`, whose process is `pid`; the pipe's file belongs to `gid`. A pipe
    // of that name that is still open is closed first; while a request on it is being handled, the
    // new pipe is opened later. False, with a log line, on failure.
    virtual bool RegServiceCallBack(const std::string& owner, uint32_t gid, int32_t pid) = 0;

    // Marks the owner not open and closes its pipe, at once or when its last request has been
    // handled.
    virtual void UnRegServiceCallBack(const std::string& owner) = 0;

    // The pipe's descriptor; -1 for an owner that is unknown or not open. Any lock may be held.
    virtual int GetServiceFd(const std::string& owner) const = 0;
};

// Callable from any thread. A report is queued under whatever lock orders the changes that it tells
// of, and sent by Flush() when that lock has been released; nobody waits for an owner.
class StateReports {
public:
    virtual ~StateReports() = default;

    // Reports `infos` to `owner`. True when the report is queued, or when there are none. False,
    // with a log line, when the owner has no open pipe; it is told the state when it has one again.
    virtual bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                                const std::string& owner) = 0;

    // The same for changes of general applications. `isAnswer`: to a request of the owner.
    virtual bool ReportAppChanges(const std::vector<Message::AppStateInfo>& infos,
                                  const std::string& owner, bool isAnswer) = 0;

    // Answers a query: 0 alive, 1 gone or unknown, 2 stopped. True when the answer is queued, or
    // when there is nothing to send.
    virtual bool ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                                       const std::string& owner) = 0;

    // Reports one application to the access manager, unless it is the access manager.
    virtual void ReportAppStateToZorn(const AppInfo& app, uint32_t reportType, uint32_t result) = 0;

    // Sends what is queued, as far as the pipes take it at once. Not with a lock held.
    virtual void Flush() = 0;
};

}  // namespace ProcMgr::App
