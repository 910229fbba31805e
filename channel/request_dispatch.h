// What arrives on the owner pipes: each record is checked, decoded by its type and given to the one
// handler that serves that type. Runs on threads of the messaging library, several at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "message/delay_core_affinity.h"
#include "message/request_msg.h"
#include "platform/messaging.h"

namespace ProcMgr {

// Who serves what; each is called with the name of the owner whose pipe the request came on.
struct RequestHandlers {
    template <typename Decoded>
    using Handler = std::function<void(const Decoded& decoded, const std::string& owner)>;
    using CfgHandler = std::function<void(const Message::StartupCfgInfo& info,
                                          const std::string& owner, int32_t fd)>;

    Handler<std::vector<Message::StartAppInfo>> startApp;
    Handler<std::vector<Message::RestartAppInfo>> restartApp;
    Handler<std::vector<Message::TermAppInfo>> termApp;
    Handler<Message::BaseServiceStateInfo> baseServiceState;
    Handler<Message::AppExecInfo> appExecution;
    CfgHandler loadStartupCfg;
    CfgHandler reloadStartupCfg;
    Handler<std::vector<std::string>> queryAppState;
    // Returns the result that the owner gets, if it wants one.
    std::function<uint32_t(const Message::DelayCoreAffinityReq& request)> setDelayCoreAffinity;
};

class RequestDispatch {
public:
    explicit RequestDispatch(RequestHandlers handlers) : handlers_(std::move(handlers)) {}

    // The callback of every owner pipe. No `request`: the peer has gone.
    void RequestMsgHandler(int32_t fd, const MuxaRequest* request, const std::string& owner) const;

private:
    void AnswerDelayRequest(int32_t fd, const MuxaRequest& request) const;
    void Dispatch(const Message::RequestMsg& record, const std::string& owner, int32_t fd) const;

    const RequestHandlers handlers_;
};

}  // namespace ProcMgr
