// The requests of an owner, as bytes, and what they are answered with.
#include <algorithm>
#include <cstring>
#include <set>

#include "agent/codec.h"
#include "wire/little_endian.h"

namespace ProcMgr::Agent {
namespace {

using Message::PM_PIPE_BUF_MAX;
using Message::RequestMsg;

constexpr char SEPARATOR = '#';
// What the items of one record may add up to, which leaves room for their count, and how many the
// daemon takes.
constexpr size_t ITEMS_LENGTH_MAX = 3955;
constexpr size_t ITEMS_MAX = 1999;
// What the daemon takes of one item to launch. Beyond it misreads the items that follow.
constexpr size_t ARGUMENTS_MAX = 1024;
constexpr size_t DYNAMIC_PARAMETERS_MAX = 3;
constexpr int DYNAMIC_INDEX_MAX = 2;
constexpr size_t DYNAMIC_VALUES_MAX = 1024;

// Joins fields; remembers whether one of them could not be one.
class FieldWriter {
public:
    FieldWriter& operator<<(const std::string& text) {
        isGood_ = isGood_ && text.find(SEPARATOR) == std::string::npos;
        text_ += text;
        text_ += SEPARATOR;
        return *this;
    }
    FieldWriter& operator<<(uint64_t number) { return *this << std::to_string(number); }
    FieldWriter& operator<<(const std::vector<std::string>& list) {
        *this << list.size();
        for (const std::string& text : list) {
            *this << text;
        }
        return *this;
    }

    bool IsGood() const { return isGood_; }
    const std::string& GetText() const { return text_; }

private:
    std::string text_;
    bool isGood_ = true;
};

RequestMsg MakeRecord(Message::RequestType type, const std::string& payload) {
    RequestMsg record;
    record.type = type;
    record.size = payload.size();
    std::memcpy(record.data, payload.data(), payload.size());
    return record;
}

RequestMsg MakeListRecord(Message::RequestType type, size_t count, const std::string& body) {
    return MakeRecord(type, std::to_string(count) + SEPARATOR + body);
}

template <typename Item>
bool IsLaunchable(const Item& item, bool hasDynamicPara) {
    if (item.argv.size() > ARGUMENTS_MAX) {
        return false;
    }
    return !hasDynamicPara ||
           (item.dynamicPara.size() <= DYNAMIC_PARAMETERS_MAX &&
            std::all_of(item.dynamicPara.begin(), item.dynamicPara.end(), [](const auto& entry) {
                return entry.first <= DYNAMIC_INDEX_MAX &&
                       entry.second.size() <= DYNAMIC_VALUES_MAX;
            }));
}

template <typename Item, typename Write>
std::optional<Records> MakeListRequests(Message::RequestType type, const std::vector<Item>& items,
                                        Write write) {
    Records records;
    std::string body;
    size_t count = 0;
    for (const Item& item : items) {
        FieldWriter fields;
        write(fields, item);
        const std::string& text = fields.GetText();
        if (!fields.IsGood() || text.size() > ITEMS_LENGTH_MAX) {
            return std::nullopt;
        }
        if (body.size() + text.size() > ITEMS_LENGTH_MAX || count == ITEMS_MAX) {
            records.push_back(MakeListRecord(type, count, body));
            body.clear();
            count = 0;
        }
        body += text;
        ++count;
    }
    if (count > 0) {
        records.push_back(MakeListRecord(type, count, body));
    }
    return records;
}

template <typename Item>
std::optional<Records> MakeLaunchRequests(Message::RequestType type, const std::vector<Item>& items,
                                          bool hasDynamicPara) {
    if (!std::all_of(items.begin(), items.end(),
                     [=](const Item& item) { return IsLaunchable(item, hasDynamicPara); })) {
        return std::nullopt;
    }
    return MakeListRequests(type, items, [=](FieldWriter& fields, const Item& item) {
        fields << item.appName << item.argv;
        if (!hasDynamicPara) {
            return;
        }
        fields << item.dynamicPara.size();
        for (const auto& [index, values] : item.dynamicPara) {
            fields << std::to_string(index) << values;
        }
    });
}

std::optional<Records> MakeOne(Message::RequestType type, const FieldWriter& fields) {
    if (!fields.IsGood() || fields.GetText().size() > PM_PIPE_BUF_MAX) {
        return std::nullopt;
    }
    return Records{MakeRecord(type, fields.GetText())};
}

void AppendNumber(std::string& bytes, size_t number) {
    for (size_t i = 0; i < sizeof(uint32_t); ++i) {
        bytes += static_cast<char>(number >> (8 * i) & 0xFF);
    }
}

// The answer, too, is one record: one that does not fit is never sent.
bool IsAnswerable(const std::vector<std::string>& names) {
    size_t length = sizeof(uint32_t);
    for (const std::string& name : std::set<std::string>(names.begin(), names.end())) {
        length += 2 * sizeof(uint32_t) + name.size();
    }
    return length <= PM_PIPE_BUF_MAX;
}

// Takes a number from the begin of `bytes`; false when they hold none.
bool TakeNumber(std::string_view& bytes, uint32_t& number) {
    if (bytes.size() < sizeof(number)) {
        return false;
    }
    number = 0;
    for (size_t i = 0; i < sizeof(number); ++i) {
        number |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])) << (8 * i);
    }
    bytes.remove_prefix(sizeof(number));
    return true;
}

}  // namespace

std::optional<Records> MakeStartRequests(const std::vector<Message::StartAppInfo>& items,
                                         bool hasDynamicPara) {
    return MakeLaunchRequests(Message::START_APP, items, hasDynamicPara);
}

std::optional<Records> MakeRestartRequests(const std::vector<Message::RestartAppInfo>& items,
                                           bool hasDynamicPara) {
    return MakeLaunchRequests(Message::RESTART_APP, items, hasDynamicPara);
}

std::optional<Records> MakeTermRequests(const std::vector<Message::TermAppInfo>& items) {
    return MakeListRequests(
        Message::TERM_APP, items,
        [](FieldWriter& fields, const Message::TermAppInfo& item) { fields << item.appName; });
}

std::optional<Records> MakeExecutionReport(const Message::AppExecInfo& info) {
    FieldWriter fields;
    fields << 1 << info.appName << info.pid << info.gid << info.state;
    return MakeOne(Message::APP_EXECUTION_REPORT, fields);
}

std::optional<Records> MakeStartupCfgRequest(Message::RequestType type,
                                             const Message::StartupCfgInfo& info) {
    FieldWriter fields;
    fields << 1 << info.path << info.matchData.size();
    for (const auto& [key, value] : info.matchData) {
        fields << key << value;
    }
    return MakeOne(type, fields);
}

std::optional<Records> MakeQuery(const std::vector<std::string>& names) {
    if (!IsAnswerable(names)) {
        return std::nullopt;
    }
    std::string bytes;
    AppendNumber(bytes, names.size());
    for (const std::string& name : names) {
        AppendNumber(bytes, name.size());
        bytes += name;
    }
    if (bytes.size() > PM_PIPE_BUF_MAX) {
        return std::nullopt;
    }
    return Records{MakeRecord(Message::QUERY_APP_STATE, bytes)};
}

std::array<uint8_t, sizeof(Message::DelayCoreAffinityReq)> MakeDelayRequest(
    const Message::DelayCoreAffinityReq& request) {
    using Message::DelayCoreAffinityReq;
    std::array<uint8_t, sizeof(DelayCoreAffinityReq)> body{};
    body[offsetof(DelayCoreAffinityReq, state)] = request.state;
    body[offsetof(DelayCoreAffinityReq, checkNum)] = static_cast<uint8_t>(request.checkNum);
    body[offsetof(DelayCoreAffinityReq, isWakeUpEnable)] = request.isWakeUpEnable;
    Wire::StoreLittleEndian(request.checkInterval,
                               &body[offsetof(DelayCoreAffinityReq, checkInterval)]);
    return body;
}

std::optional<uint32_t> DecodeResult(std::span<const uint8_t> body) {
    return body.size() == sizeof(uint32_t)
               ? std::optional(Wire::LoadLittleEndian<uint32_t>(body.data()))
               : std::nullopt;
}

std::optional<std::map<std::string, uint32_t>> DecodeDetailStatus(const RequestMsg& record) {
    if (record.type != Message::APP_DETAIL_STATUS_REPORT || record.size > PM_PIPE_BUF_MAX) {
        return std::nullopt;
    }
    std::string_view bytes(reinterpret_cast<const char*>(record.data),
                           static_cast<size_t>(record.size));
    uint32_t count = 0;
    if (!TakeNumber(bytes, count)) {
        return std::nullopt;
    }
    std::map<std::string, uint32_t> statusByName;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        uint32_t status = 0;
        if (!TakeNumber(bytes, length) || length > bytes.size()) {
            return std::nullopt;
        }
        const std::string name(bytes.substr(0, length));
        bytes.remove_prefix(length);
        if (!TakeNumber(bytes, status)) {
            return std::nullopt;
        }
        statusByName[name] = status;
    }
    return statusByName;
}

}  // namespace ProcMgr::Agent
