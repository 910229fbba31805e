#include "channel/request_dispatch.h"

#include <cstring>
#include <memory>

#include "main/log.h"
#include "message/serialization.h"

namespace ProcMgr {

using Message::RequestMsg;

void RequestDispatch::RequestMsgHandler(int32_t fd, const MuxaRequest* request,
                                        const std::string& owner) const {
    if (fd < 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RequestMsgHandler failed: invalid fd=%d", fd);
        return;
    }
    if (request == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : fd=%d, owner=%s exit", fd, owner.c_str());
        return;
    }
    if (request->length != sizeof(RequestMsg)) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : RequestMsgHandler size=%u bytes is not illegal ,struct of message "
                   "size=%lu bytes",
                   request->length, static_cast<unsigned long>(sizeof(RequestMsg)));
        return;
    }
    if (request->data == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RequestMsgHandler failed: request is null point");
        return;
    }
    // The library's buffer has no alignment of its own.
    const auto record = std::make_unique<RequestMsg>();
    std::memcpy(record.get(), request->data, sizeof(*record));
    Dispatch(*record, owner);
}

void RequestDispatch::Dispatch(const RequestMsg& record, const std::string& owner) const {
    if (record.type == Message::BASESERVICE_STATE_REPORT) {
        Message::BaseServiceStateInfo info;
        Serialization::ProcMgrUnpackedBaseServiceStateRequest(&record, info);
        handlers_.baseServiceState(owner, info);
    }
}

}  // namespace ProcMgr
