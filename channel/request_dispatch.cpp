#include "channel/request_dispatch.h"

#include <optional>
#include <span>

#include "main/common/log.h"
#include "main/common/muxa_retry.h"
#include "message/record_codec.h"
#include "message/request_codec.h"
#include "message/serialization.h"

namespace ProcMgr {

using Message::DelayCoreAffinityReq;
using Message::RequestMsg;

void RequestDispatch::RequestMsgHandler(int32_t fd, const MuxaRequest* request,
                                        const std::string& owner) const {
    // Bounds the lines that one request of an owner can cause.
    const LogLimit limit(owner.c_str());
    if (fd < 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : RequestMsgHandler failed: invalid fd=%d", fd);
        return;
    }
    if (request == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : fd=%d, owner=%s exit", fd, owner.c_str());
        return;
    }
    const bool isDelayRequest = request->length == sizeof(DelayCoreAffinityReq);
    if (!isDelayRequest && request->length != sizeof(RequestMsg)) {
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
    if (isDelayRequest) {
        AnswerDelayRequest(fd, *request);
        return;
    }
    const std::span bytes(static_cast<const uint8_t*>(request->data), request->length);
    if (const auto record = Message::DecodeRecord(bytes)) {
        Dispatch(*record, owner, fd);
    }
}

// A delay request has no type field: its length identifies it.
void RequestDispatch::AnswerDelayRequest(int32_t fd, const MuxaRequest& request) const {
    const std::span<const uint8_t, sizeof(DelayCoreAffinityReq)> bytes(
        static_cast<const uint8_t*>(request.data), sizeof(DelayCoreAffinityReq));
    const uint32_t result = handlers_.SetDelayCoreAffinity(Message::DecodeDelayRequest(bytes));
    if (request.wantsResponse) {
        const auto body = Message::EncodeDelayResult(result);
        MuxaResponse response;
        response.sequence = request.sequence;
        response.data.assign(body.begin(), body.end());
        ProcMgrMuxaSendResponse(fd, &response);
    }
}

void RequestDispatch::Dispatch(const RequestMsg& record, const std::string& owner,
                               int32_t fd) const {
    using namespace Serialization;
    switch (record.type) {
        case Message::START_APP: {
            std::vector<Message::StartAppInfo> items;
            ProcMgrUnpackStartRequest(&record, items, owner);
            handlers_.StartApp(items, owner);
            return;
        }
        case Message::RESTART_APP: {
            std::vector<Message::RestartAppInfo> items;
            ProcMgrUnpackRestartRequest(&record, items, owner);
            handlers_.RestartApp(items, owner);
            return;
        }
        case Message::TERM_APP: {
            std::vector<Message::TermAppInfo> items;
            ProcMgrUnpackTermRequest(&record, items);
            handlers_.TermApp(items, owner);
            return;
        }
        case Message::BASESERVICE_STATE_REPORT: {
            Message::BaseServiceStateInfo info;
            ProcMgrUnpackedBaseServiceStateRequest(&record, info);
            handlers_.ReportBaseServiceState(info, owner);
            return;
        }
        case Message::APP_EXECUTION_REPORT: {
            Message::AppExecInfo info;
            ProcMgrUnpackedAppExecInfoRequest(&record, info);
            handlers_.ReportAppExecution(info, owner);
            return;
        }
        case Message::LOAD_STARTUP_CFG:
        case Message::RELOAD_STARTUP_CFG:
            DispatchStartupCfg(record, owner, fd);
            return;
        case Message::QUERY_APP_STATE: {
            const auto names = Message::DecodeQuery(record);
            if (!names) {
                ProcMgrLog(LOG_ERR, "PROCMGR: DeserializeMessage QUERY_APP_STATE fail.");
            }
            handlers_.QueryAppState(names.value_or(std::vector<std::string>()), owner);
            return;
        }
        default:
            return;
    }
}

void RequestDispatch::DispatchStartupCfg(const RequestMsg& record, const std::string& owner,
                                         int32_t fd) const {
    Message::StartupCfgInfo info;
    Serialization::ProcMgrUnpackMatchDataAndPathRequest(&record, info);
    if (record.type == Message::LOAD_STARTUP_CFG) {
        handlers_.LoadStartupCfg(info, owner, fd);
    } else {
        handlers_.ReloadStartupCfg(info, owner, fd);
    }
}

}  // namespace ProcMgr
