#include "message/serialization.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>

#include "main/common/log.h"
#include "message/record_codec.h"
#include "message/report_codec.h"
#include "message/request_codec.h"
#include "message/text_fields.h"
#include "platform/securec.h"

namespace ProcMgr::Serialization {
namespace {

using Message::AppStateInfo;
using Message::Limit;
using Message::LimitBreach;
using Message::RequestMsg;
using Message::RequestType;

struct LaunchTexts {
    const char* tooManyItems;
    const char* tooManyArguments;
};

constexpr LaunchTexts START_TEXTS{
    "ProcMgr : ProcMgrMaster UnpackStartRequest err: big startAppListSize=%u",
    "ProcMgr : ProcMgrMaster : UnpackStartRequest err, argvSize=%u"};
constexpr LaunchTexts RESTART_TEXTS{
    "ProcMgr : ProcMgrMaster UnpackRestartRequest err: big restartAppListSize=%u",
    "ProcMgr : ProcMgrMaster : UnpackRestartRequest err, argvSize=%u"};

// Logs a breach in a block of dynamic parameters.
void LogDynamicBreach(const LimitBreach& breach) {
    const auto number = static_cast<size_t>(breach.number);
    switch (breach.limit) {
        case Limit::DYNAMIC_PARAMETERS:
            ProcMgrLog(LOG_ERR,
                       "ProcMgr : ProcMgrMaster unpack request failed, dynamicParaSize=%zu invalid",
                       number);
            return;
        case Limit::DYNAMIC_INDEX:
            ProcMgrLog(
                LOG_ERR,
                "ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d invalid",
                breach.index);
            return;
        case Limit::DYNAMIC_VALUES:
            ProcMgrLog(LOG_ERR,
                       "ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d, "
                       "valueNum=%zu invalid",
                       breach.index, number);
            return;
        case Limit::ITEMS:
        case Limit::ARGUMENTS:
            return;
    }
}

void UnpackLaunchRequest(const RequestMsg& request, const LaunchTexts& texts,
                         const std::string& sender, std::vector<Message::StartAppInfo>& out) {
    for (const LimitBreach& breach : Message::DecodeLaunchRequest(request, sender, out)) {
        const auto number = static_cast<uint32_t>(breach.number);
        if (breach.limit == Limit::ITEMS) {
            ProcMgrLog(LOG_ERR, texts.tooManyItems, number);
        } else if (breach.limit == Limit::ARGUMENTS) {
            ProcMgrLog(LOG_ERR, texts.tooManyArguments, number);
        } else {
            LogDynamicBreach(breach);
        }
    }
}

}  // namespace

bool ProcMgrPackAppStateRequest(const std::vector<AppStateInfo>& infos,
                                std::vector<std::pair<uint32_t, std::string>>& pieces) {
    for (const AppStateInfo& info : infos) {
        std::string piece = Message::EncodeAppState(info);
        if (piece.size() > Message::STATE_ITEM_MAX) {
            ProcMgrLog(LOG_ERR,
                       "ProcMgrAgent : PackAppStateRequest failed=%s, size=%lu bytes beyond the "
                       "PM_PIPE_BUF_MAX!!",
                       piece.c_str(), static_cast<unsigned long>(piece.size()));
            return false;
        }
        const auto length = static_cast<uint32_t>(piece.size());
        pieces.emplace_back(length, std::move(piece));
    }
    return true;
}

bool ProcMgrCombinePiecesMsg(RequestType type,
                             std::vector<std::pair<uint32_t, std::string>>& pieces,
                             std::vector<RequestMsg>& out) {
    if (pieces.empty()) {
        ProcMgrLog(LOG_ERR, "CombinePiecesMsg failed: packedRequest is empty!!");
        return false;
    }
    std::sort(pieces.begin(), pieces.end());
    Message::ItemGroups groups;
    for (const auto& [length, text] : pieces) {
        if (length > Message::GROUP_MAX) {
            ProcMgrLog(LOG_WARNING,
                       "ProcMgrAgent : packedRequest=%u bytes beyond the PM_PIPE_BUF_MAX!", length);
            break;
        }
        groups.Add(text, length);
    }
    for (const Message::ItemGroup& group : groups.Groups()) {
        ProcMgrCombineMsg(type, group.count, group.body, out);
    }
    return true;
}

void ProcMgrCombineMsg(RequestType type, uint32_t count, const std::string& body,
                       std::vector<RequestMsg>& out) {
    const std::string payload = Message::PayloadOf(Message::ItemGroup{count, body});
    RequestMsg& record = out.emplace_back();
    record.type = type;
    const int ret = memcpy_s(record.data, sizeof(record.data), payload.data(), payload.size());
    if (ret != 0) {
        ProcMgrLog(LOG_ERR, "ProcMgrCombineMsg failed memcpy_s failed: strSize=%lu bytes, ret=%d",
                   static_cast<unsigned long>(payload.size()), ret);
    }
    record.size = payload.size();
}

void ProcMgrUnpackStartRequest(const RequestMsg* request, std::vector<Message::StartAppInfo>& out,
                               const std::string& sender) {
    UnpackLaunchRequest(*request, START_TEXTS, sender, out);
}

void ProcMgrUnpackRestartRequest(const RequestMsg* request,
                                 std::vector<Message::RestartAppInfo>& out,
                                 const std::string& sender) {
    UnpackLaunchRequest(*request, RESTART_TEXTS, sender, out);
}

bool UnPackDynamicPara(std::istringstream& in, std::map<int, std::vector<std::string>>& out) {
    const std::streamoff begin = in.tellg();
    const std::string_view bytes = in.view();
    // A stream that has failed before has no position: nothing is left in it.
    Message::FieldReader reader(begin < 0 ? std::string_view()
                                          : bytes.substr(static_cast<size_t>(begin)));
    const std::optional<LimitBreach> breach = Message::DecodeDynamicPara(reader, out);
    if (breach) {
        LogDynamicBreach(*breach);
    }
    in.seekg(static_cast<std::streamoff>(bytes.size() - reader.Left()));
    if (reader.HasFailed()) {
        in.setstate(std::ios::failbit);
    }
    return !breach;
}

void ProcMgrUnpackTermRequest(const RequestMsg* request, std::vector<Message::TermAppInfo>& out) {
    if (const auto breach = Message::DecodeTermRequest(*request, out)) {
        ProcMgrLog(LOG_ERR, "ProcMgr : ProcMgrMaster UnpackTermRequest err: big AppListSize=%u",
                   static_cast<uint32_t>(breach->number));
    }
}

void ProcMgrUnpackedBaseServiceStateRequest(const RequestMsg* request,
                                            Message::BaseServiceStateInfo& out) {
    Message::DecodeStateReport(*request, out);
}

void ProcMgrUnpackedAppExecInfoRequest(const RequestMsg* request, Message::AppExecInfo& out) {
    Message::DecodeExecutionReport(*request, out);
}

void ProcMgrUnpackMatchDataAndPathRequest(const RequestMsg* request, Message::StartupCfgInfo& out) {
    Message::DecodeStartupCfgRequest(*request, out);
}

}  // namespace ProcMgr::Serialization
