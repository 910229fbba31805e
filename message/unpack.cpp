// Decoding of requests. Reading ends where the payload does: what a count promises beyond that
// stays at its default. A list is as long as announced, at most its limit; only the last one of a
// record can be longer than the bytes that are left, so a record never costs more than one list of
// defaults.
#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

#include "main/common/log.h"
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
std::string_view PayloadOf(const RequestMsg& request) {
    return {reinterpret_cast<const char*>(request.data),
            std::min<uint64_t>(request.size, PM_PIPE_BUF_MAX)};
}

// Reads fields as an input stream does, at a fraction of its cost. Like a stream it reads nothing
// more once a field was missing or was no number.
class FieldReader {
public:
    explicit FieldReader(std::string_view bytes) : rest_(bytes) {}

    // A number and the one character behind it, whatever that is. White space in front is skipped
    // and a sign is taken; "-1" is the largest value of an unsigned type. Too large a number is the
    // nearest one that there is, and what is none is 0: nothing is read behind either. Unchanged
    // when nothing is left.
    template <typename Number>
    void ReadNumber(Number& number) {
        if (hasFailed_) {
            return;
        }
        SkipSpace();
        if (rest_.empty()) {
            hasFailed_ = true;
            return;
        }
        const bool isNegative = rest_.front() == '-';
        if (isNegative || rest_.front() == '+') {
            rest_.remove_prefix(1);
        }
        number = TakeDigits<Number>(isNegative);
        hasFailed_ = hasFailed_ || rest_.empty();
        rest_.remove_prefix(hasFailed_ ? 0 : 1);
    }

    // Up to the separator, or to the end. False, with `text` unchanged, when nothing is left.
    bool ReadText(std::string& text) {
        if (hasFailed_ || rest_.empty()) {
            hasFailed_ = true;
            return false;
        }
        const size_t length = std::min(rest_.find(SEPARATOR), rest_.size());
        text.assign(rest_.substr(0, length));
        rest_.remove_prefix(std::min(length + 1, rest_.size()));
        return true;
    }

    // Appends `count` texts; those that are not there are empty.
    void ReadTexts(size_t count, std::vector<std::string>& out) {
        const size_t first = out.size();
        out.resize(first + count);
        for (size_t i = first; i < out.size() && ReadText(out[i]); ++i) {
        }
    }

    bool HasFailed() const { return hasFailed_; }
    size_t Left() const { return rest_.size(); }

private:
    void SkipSpace() {
        const size_t length = rest_.find_first_not_of(" \t\n\v\f\r");
        rest_.remove_prefix(std::min(length, rest_.size()));
    }

    template <typename Number>
    Number TakeDigits(bool isNegative) {
        using Magnitude = std::make_unsigned_t<Number>;
        constexpr bool IS_SIGNED = std::is_signed_v<Number>;
        const auto largest =
            static_cast<Magnitude>(static_cast<Magnitude>(std::numeric_limits<Number>::max()) +
                                   (IS_SIGNED && isNegative ? 1U : 0U));
        Magnitude value = 0;
        bool isTooLarge = false;
        size_t length = 0;
        for (; length < rest_.size() && rest_[length] >= '0' && rest_[length] <= '9'; ++length) {
            const auto digit = static_cast<Magnitude>(rest_[length] - '0');
            isTooLarge = isTooLarge || value > (largest - digit) / 10;
            value = static_cast<Magnitude>(value * 10 + digit);
        }
        rest_.remove_prefix(length);
        hasFailed_ = isTooLarge || length == 0;
        if (isTooLarge) {
            return IS_SIGNED && isNegative ? std::numeric_limits<Number>::min()
                                           : std::numeric_limits<Number>::max();
        }
        return static_cast<Number>(isNegative ? Magnitude{0} - value : value);
    }

    std::string_view rest_;
    bool hasFailed_ = false;
};

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

// The dynamic block of one item; also what the interface of that name does for a stream.
bool UnpackDynamicBlock(FieldReader& in, std::map<int, std::vector<std::string>>& out) {
    out.clear();
    size_t parameters = 0;
    in.ReadNumber(parameters);
    if (parameters > DYNAMIC_PARAMETERS_MAX) {
        ProcMgrLog(LOG_ERR,
                   "ProcMgr : ProcMgrMaster unpack request failed, dynamicParaSize=%zu invalid",
                   parameters);
        return false;
    }
    for (size_t i = 0; i < parameters; ++i) {
        int index = 0;
        size_t values = 0;
        in.ReadNumber(index);
        if (index > DYNAMIC_INDEX_MAX) {
            ProcMgrLog(
                LOG_ERR,
                "ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d invalid",
                index);
            return false;
        }
        in.ReadNumber(values);
        if (values > DYNAMIC_VALUES_MAX) {
            ProcMgrLog(LOG_ERR,
                       "ProcMgr : ProcMgrMaster unpack request failed, dynamicPara index=%d, "
                       "valueNum=%zu invalid",
                       index, values);
            return false;
        }
        if (values > 0) {
            in.ReadTexts(values, out[index]);
        }
    }
    return true;
}

// A start and a restart request look the same.
template <typename Item>
void UnpackLaunchRequest(const RequestMsg& request, const LaunchTexts& texts, bool hasDynamicPara,
                         std::vector<Item>& out) {
    FieldReader in(PayloadOf(request));
    uint32_t count = 0;
    in.ReadNumber(count);
    if (count > LIST_MAX) {
        ProcMgrLog(LOG_ERR, texts.bigList, count);
        return;
    }
    out.clear();
    out.resize(count);
    for (Item& item : out) {
        uint32_t arguments = 0;
        if (!in.ReadText(item.appName)) {
            return;
        }
        in.ReadNumber(arguments);
        if (arguments > ARGUMENTS_MAX) {
            ProcMgrLog(LOG_ERR, texts.bigArguments, arguments);
            continue;
        }
        in.ReadTexts(arguments, item.argv);
        if (hasDynamicPara && !UnpackDynamicBlock(in, item.dynamicPara)) {
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
    const std::streamoff begin = in.tellg();
    const std::string_view bytes = in.view();
    // A stream that has failed before is at no position: nothing is left in it.
    FieldReader reader(begin < 0 ? std::string_view() : bytes.substr(static_cast<size_t>(begin)));
    const bool isUsable = UnpackDynamicBlock(reader, out);
    in.seekg(static_cast<std::streamoff>(bytes.size() - reader.Left()));
    if (reader.HasFailed()) {
        in.setstate(std::ios::failbit);
    }
    return isUsable;
}

void ProcMgrUnpackTermRequest(const RequestMsg* request, std::vector<Message::TermAppInfo>& out) {
    FieldReader in(PayloadOf(*request));
    uint32_t count = 0;
    in.ReadNumber(count);
    if (count > LIST_MAX) {
        ProcMgrLog(LOG_ERR, "ProcMgr : ProcMgrMaster UnpackTermRequest err: big AppListSize=%u",
                   count);
        return;
    }
    out.clear();
    out.resize(count);
    for (Message::TermAppInfo& item : out) {
        if (!in.ReadText(item.appName)) {
            return;
        }
    }
}

void ProcMgrUnpackedBaseServiceStateRequest(const RequestMsg* request,
                                            Message::BaseServiceStateInfo& out) {
    FieldReader in(PayloadOf(*request));
    uint32_t count = 0;
    in.ReadNumber(count);
    in.ReadNumber(out.state);
}

void ProcMgrUnpackedAppExecInfoRequest(const RequestMsg* request, Message::AppExecInfo& out) {
    FieldReader in(PayloadOf(*request));
    uint32_t count = 0;
    in.ReadNumber(count);
    in.ReadText(out.appName);
    in.ReadNumber(out.pid);
    in.ReadNumber(out.gid);
    in.ReadNumber(out.state);
}

void ProcMgrUnpackMatchDataAndPathRequest(const RequestMsg* request, Message::StartupCfgInfo& out) {
    FieldReader in(PayloadOf(*request));
    uint32_t count = 0;
    uint32_t pairs = 0;
    out.matchData.clear();
    in.ReadNumber(count);
    in.ReadText(out.path);
    in.ReadNumber(pairs);
    if (pairs > MATCH_PAIRS_MAX) {
        return;
    }
    // Of a repeated key the first value stays.
    std::string key;
    for (uint32_t i = 0; i < pairs && in.ReadText(key); ++i) {
        std::string value;
        in.ReadText(value);
        out.matchData.emplace(key, value);
    }
}

bool DecodeQueryNames(const RequestMsg& request, std::vector<std::string>& names) {
    names.clear();
    if (!DecodeNames(PayloadOf(request), names)) {
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
    out = RequestMsg();
    out.type = Message::APP_DETAIL_STATUS_REPORT;
    out.size = bytes.size();
    std::memcpy(out.data, bytes.data(), bytes.size());
    return true;
}

}  // namespace ProcMgr::Serialization
