// Decoding of requests. Reading ends where the payload does: what a count or a length promises
// beyond that stays at its default and costs nothing.
#include <algorithm>
#include <cstring>

#include "main/log.h"
#include "message/serialization.h"

namespace ProcMgr::Serialization {
namespace {

using Message::PM_PIPE_BUF_MAX;
using Message::RequestMsg;

constexpr char SEPARATOR = '#';
constexpr uint32_t LIST_MAX = 1999;
constexpr uint32_t ARGUMENTS_MAX = 1024;
constexpr uint32_t MATCH_PAIRS_MAX = 102399;
constexpr size_t DYNAMIC_PARAMETERS_MAX = 3;
constexpr int DYNAMIC_INDEX_MAX = 2;
constexpr size_t DYNAMIC_VALUES_MAX = 1024;

// The bytes in use. `size` is the sender's word: it is never trusted beyond the record.
size_t LengthOf(const RequestMsg& request) {
    return std::min<uint64_t>(request.size, PM_PIPE_BUF_MAX);
}

std::istringstream PayloadOf(const RequestMsg& request) {
    return std::istringstream(
        std::string(reinterpret_cast<const char*>(request.data), LengthOf(request)));
}

// Reads a number and the one character behind it, whatever that is.
template <typename Number>
void ReadNumber(std::istringstream& in, Number& number) {
    in >> number;
    in.get();
}

// False, with `text` empty, when the payload has ended.
bool ReadText(std::istringstream& in, std::string& text) {
    return static_cast<bool>(std::getline(in, text, SEPARATOR));
}

// At most `count` texts, as many as there are.
void ReadTexts(std::istringstream& in, size_t count, std::vector<std::string>& out) {
    std::string text;
    for (size_t i = 0; i < count && ReadText(in, text); ++i) {
        out.push_back(text);
    }
}

struct LaunchTexts {
    const char* bigList;
    const char* bigArguments;
};

constexpr LaunchTexts START_TEXTS{
    "ProcMgr : ProcMgrMaster UnpackStartRequest err: big startAppListSize=%u",
    "ProcMgr : ProcMgrMaster : UnpackStartRequest err, argvSize=%u"};
constexpr LaunchTexts RESTART_TEXTS{
    "ProcMgr : ProcMgrMaster UnpackRestartRequest err: big restartAppListSize=%u",
    "ProcMgr : ProcMgrMaster : UnpackRestartRequest err, argvSize=%u"};

// A start and a restart request look the same.
template <typename Item>
void UnpackLaunchRequest(const RequestMsg& request, const LaunchTexts& texts, bool hasDynamicPara,
                         std::vector<Item>& out) {
    std::istringstream in = PayloadOf(request);
    uint32_t count = 0;
    ReadNumber(in, count);
    if (count > LIST_MAX) {
        ProcMgrLog(LOG_ERR, texts.bigList, count);
        return;
    }
    out.resize(count);
    for (Item& item : out) {
        uint32_t arguments = 0;
        if (!ReadText(in, item.appName)) {
            return;
        }
        ReadNumber(in, arguments);
        if (arguments > ARGUMENTS_MAX) {
            ProcMgrLog(LOG_ERR, texts.bigArguments, arguments);
            continue;
        }
        ReadTexts(in, arguments, item.argv);
        if (hasDynamicPara && !UnPackDynamicPara(in, item.dynamicPara)) {
            return;
        }
    }
}

bool HasDynamicPara(const std::string& sender) {
    return sender != "zornmgr";
}

// Reads from the begin of `bytes`; false when they do not hold a number.
bool TakeNumber(std::string_view& bytes, uint32_t& number) {
    if (bytes.size() < sizeof(number)) {
        return false;
    }
    std::memcpy(&number, bytes.data(), sizeof(number));
    bytes.remove_prefix(sizeof(number));
    return true;
}

bool DecodeNames(std::string_view bytes, std::vector<std::string>& names) {
    uint32_t count = 0;
    if (!TakeNumber(bytes, count) || count > bytes.size()) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (!TakeNumber(bytes, length) || length > bytes.size()) {
            return false;
        }
        names.emplace_back(bytes.substr(0, length));
        bytes.remove_prefix(length);
    }
    return true;
}

}  // namespace

void ProcMgrUnpackStartRequest(const RequestMsg* request, std::vector<Message::StartAppInfo>& out,
                               const std::string& sender) {
    UnpackLaunchRequest(*request, START_TEXTS, HasDynamicPara(sender), out);
}

void ProcMgrUnpackRestartRequest(const RequestMsg* request,
                                 std::vector<Message::RestartAppInfo>& out,
                                 const std::string& sender) {
    UnpackLaunchRequest(*request, RESTART_TEXTS, HasDynamicPara(sender), out);
}

bool UnPackDynamicPara(std::istringstream& in, std::map<int, std::vector<std::string>>& out) {
    out.clear();
    size_t parameters = 0;
    ReadNumber(in, parameters);
    if (parameters > DYNAMIC_PARAMETERS_MAX) {
        ProcMgrLog(LOG_ERR,
                   "ProcMgr : ProcMgrMaster unpack request failed, dynamicParaSize=%zu invalid",
                   parameters);
        return false;
    }
    for (size_t i = 0; i < parameters; ++i) {
        int index = 0;
        size_t values = 0;
        ReadNumber(in, index);
        if (index > DYNAMIC_INDEX_MAX) {
            ProcMgrLog(
                LOG_ERR,
                "ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d invalid",
                index);
            return false;
        }
        ReadNumber(in, values);
        if (values > DYNAMIC_VALUES_MAX) {
            ProcMgrLog(LOG_ERR,
                       "ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d, "
                       "valueNum=%zu invalid",
                       index, values);
            return false;
        }
        ReadTexts(in, values, out[index]);
    }
    return true;
}

void ProcMgrUnpackTermRequest(const RequestMsg* request, std::vector<Message::TermAppInfo>& out) {
    std::istringstream in = PayloadOf(*request);
    uint32_t count = 0;
    ReadNumber(in, count);
    if (count > LIST_MAX) {
        ProcMgrLog(LOG_ERR, "ProcMgr : ProcMgrMaster UnpackTermRequest err: big AppListSize=%u",
                   count);
        return;
    }
    out.resize(count);
    for (Message::TermAppInfo& item : out) {
        if (!ReadText(in, item.appName)) {
            return;
        }
    }
}

void ProcMgrUnpackedBaseServiceStateRequest(const RequestMsg* request,
                                            Message::BaseServiceStateInfo& out) {
    std::istringstream in = PayloadOf(*request);
    uint32_t count = 0;
    ReadNumber(in, count);
    ReadNumber(in, out.state);
}

void ProcMgrUnpackedAppExecInfoRequest(const RequestMsg* request, Message::AppExecInfo& out) {
    std::istringstream in = PayloadOf(*request);
    uint32_t count = 0;
    ReadNumber(in, count);
    ReadText(in, out.appName);
    ReadNumber(in, out.pid);
    ReadNumber(in, out.gid);
    ReadNumber(in, out.state);
}

void ProcMgrUnpackMatchDataAndPathRequest(const RequestMsg* request, Message::StartupCfgInfo& out) {
    std::istringstream in = PayloadOf(*request);
    uint32_t count = 0;
    uint32_t pairs = 0;
    ReadNumber(in, count);
    ReadText(in, out.path);
    ReadNumber(in, pairs);
    if (pairs > MATCH_PAIRS_MAX) {
        return;
    }
    std::string key;
    for (uint32_t i = 0; i < pairs && ReadText(in, key); ++i) {
        std::string value;
        ReadText(in, value);
        out.matchData.emplace(key, value);
    }
}

bool DecodeQueryNames(const RequestMsg& request, std::vector<std::string>& names) {
    names.clear();
    if (!DecodeNames({reinterpret_cast<const char*>(request.data), LengthOf(request)}, names)) {
        names.clear();
        return false;
    }
    return true;
}

bool EncodeDetailStatus(const std::map<std::string, uint32_t>& statusByName, RequestMsg& out) {
    std::string bytes;
    const auto append = [&](const void* data, size_t size) {
        bytes.append(static_cast<const char*>(data), size);
    };
    const auto count = static_cast<uint32_t>(statusByName.size());
    append(&count, sizeof(count));
    for (const auto& [name, status] : statusByName) {
        const auto length = static_cast<uint32_t>(name.size());
        append(&length, sizeof(length));
        append(name.data(), name.size());
        append(&status, sizeof(status));
        if (bytes.size() > PM_PIPE_BUF_MAX) {
            return false;
        }
    }
    out.type = Message::APP_DETAIL_STATUS_REPORT;
    out.size = bytes.size();
    std::memcpy(out.data, bytes.data(), bytes.size());
    return true;
}

}  // namespace ProcMgr::Serialization
