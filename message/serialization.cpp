#include "message/serialization.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

#include "main/log.h"
#include "platform/securec.h"

namespace ProcMgr::Serialization {
namespace {

using Message::AppStateInfo;
using Message::BaseServiceStateInfo;
using Message::PM_PIPE_BUF_MAX;
using Message::RequestMsg;
using Message::RequestType;

constexpr char SEPARATOR = '#';
// The longest state-report piece, and the most that the pieces of one record may add up to.
constexpr size_t PIECE_MAX = 3959;
constexpr size_t GROUP_MAX = 3955;

// The payload as text. `size` is the sender's word: it is never trusted beyond the record.
std::istringstream PayloadOf(const RequestMsg& request) {
    const size_t length = std::min<uint64_t>(request.size, PM_PIPE_BUF_MAX);
    const auto* bytes = reinterpret_cast<const char*>(request.data);
    return std::istringstream(std::string(bytes, length));
}

// Reads a number and the one character behind it, whatever that is.
template <typename Number>
void ReadNumber(std::istringstream& in, Number& number) {
    in >> number;
    in.get();
}

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

void ProcMgrUnpackedBaseServiceStateRequest(const RequestMsg* request, BaseServiceStateInfo& out) {
    std::istringstream in = PayloadOf(*request);
    uint32_t count = 0;
    ReadNumber(in, count);
    ReadNumber(in, out.state);
}

}  // namespace ProcMgr::Serialization
