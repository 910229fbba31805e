// The requests that arrive on the owner pipes: each record is checked, decoded by its type and
// passed to the one handler of that type. Runs on threads of the messaging library, several at a
// time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "message/delay_core_affinity.h"
#include "message/request_msg.h"
#include "platform/messaging.h"

namespace ProcMgr {

// The handlers, one for each type of request. `owner` is the name of the owner whose pipe the
// request came on.
class RequestHandlers {
public:
    virtual ~RequestHandlers() = default;

    virtual void StartApp(const std::vector<Message::StartAppInfo>& items,
                          const std::string& owner) = 0;
    virtual void RestartApp(const std::vector<Message::RestartAppInfo>& items,
                            const std::string& owner) = 0;
    virtual void TermApp(const std::vector<Message::TermAppInfo>& items,
                         const std::string& owner) = 0;
    // A query whose payload cannot be decoded has no names.
    virtual void QueryAppState(const std::vector<std::string>& names, const std::string& owner) = 0;
    virtual void ReportBaseServiceState(const Message::BaseServiceStateInfo& info,
                                        const std::string& owner) = 0;
    virtual void ReportAppExecution(const Message::AppExecInfo& info, const std::string& owner) = 0;
    // `fd`: the descriptor of the owner's pipe, for the log.
    virtual void LoadStartupCfg(const Message::StartupCfgInfo& info, const std::string& owner,
                                int32_t fd) = 0;
    virtual void ReloadStartupCfg(const Message::StartupCfgInfo& info, const std::string& owner,
                                  int32_t fd) = 0;
    // Returns the result that the owner receives when it has asked for a response.
    virtual uint32_t SetDelayCoreAffinity(const Message::DelayCoreAffinityReq& request) = 0;
};

class RequestDispatch {
public:
    // `handlers` must outlive this object.
    explicit RequestDispatch(RequestHandlers& handlers) : handlers_(handlers) {}

    // The callback of every owner pipe. A null `request` means that the peer has closed its end.
    void RequestMsgHandler(int32_t fd, const MuxaRequest* request, const std::string& owner) const;

private:
    void AnswerDelayRequest(int32_t fd, const MuxaRequest& request) const;
    void Dispatch(const Message::RequestMsg& record, const std::string& owner, int32_t fd) const;
    void DispatchStartupCfg(const Message::RequestMsg& record, const std::string& owner,
                            int32_t fd) const;

    RequestHandlers& handlers_;
};

}  // namespace ProcMgr
