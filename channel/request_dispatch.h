// What arrives on the owner pipes: each record is checked, decoded by its type and given to the one
// handler that serves that type. Runs on threads of the messaging library, several at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "message/request_msg.h"
#include "platform/messaging.h"

namespace ProcMgr {

// Who serves what; each is called with the name of the owner whose pipe the request came on.
struct RequestHandlers {
    std::function<void(const std::string& owner, const Message::BaseServiceStateInfo& info)>
        baseServiceState;
};

class RequestDispatch {
public:
    explicit RequestDispatch(RequestHandlers handlers) : handlers_(std::move(handlers)) {}

    // The callback of every owner pipe. No `request`: the peer has gone.
    void RequestMsgHandler(int32_t fd, const MuxaRequest* request, const std::string& owner) const;

private:
    void Dispatch(const Message::RequestMsg& record, const std::string& owner) const;

    const RequestHandlers handlers_;
};

}  // namespace ProcMgr
