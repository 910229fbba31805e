#include "message/serialization.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

#include "main/common/log.h"
#include "platform/securec.h"

namespace ProcMgr::Serialization {
namespace {

using Message::AppStateInfo;
using Message::RequestMsg;
using Message::RequestType;

constexpr char SEPARATOR = '#';
// The longest state-report piece, and the most that the pieces of one record may add up to.
constexpr size_t PIECE_MAX = 3959;
constexpr size_t GROUP_MAX = 3955;

}  // namespace

bool ProcMgrPackAppStateRequest(const std::vector<AppStateInfo>& infos,
                                std::vector<std::pair<uint32_t, std::string>>& pieces) {
    for (const AppStateInfo& info : infos) {
        std::ostringstream out;
        out << info.appName << SEPARATOR << info.pid << SEPARATOR << info.gid << SEPARATOR
            << info.reportType << SEPARATOR << info.result << SEPARATOR;
        std::string piece = out.str();
        if (piece.size() > PIECE_MAX) {
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
    std::string body;
    uint32_t count = 0;
    for (const auto& [length, text] : pieces) {
        if (length > GROUP_MAX) {
            ProcMgrLog(LOG_WARNING,
                       "ProcMgrAgent : packedRequest=%u bytes beyond the PM_PIPE_BUF_MAX!", length);
            break;
        }
        if (body.size() + length > GROUP_MAX) {
            ProcMgrCombineMsg(type, count, body, out);
            body.clear();
            count = 0;
        }
        body += text;
        ++count;
    }
    if (count > 0) {
        ProcMgrCombineMsg(type, count, body, out);
    }
    return true;
}

void ProcMgrCombineMsg(RequestType type, uint32_t count, const std::string& body,
                       std::vector<RequestMsg>& out) {
    const std::string payload = std::to_string(count) + SEPARATOR + body;
    RequestMsg& record = out.emplace_back();
    record.type = type;
    const int ret = memcpy_s(record.data, sizeof(record.data), payload.data(), payload.size());
    if (ret != 0) {
        ProcMgrLog(LOG_ERR, "ProcMgrCombineMsg failed memcpy_s failed: strSize=%lu bytes, ret=%d",
                   static_cast<unsigned long>(payload.size()), ret);
    }
    record.size = payload.size();
}

}  // namespace ProcMgr::Serialization
