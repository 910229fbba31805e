#include "message/request_codec.h"

#include <algorithm>

#include "message/binary_fields.h"
#include "message/report_codec.h"

namespace ProcMgr::Message {
namespace {

constexpr std::string_view ACCESS_MANAGER = "zornmgr";

bool IsWithinLimits(const StartAppInfo& item, bool hasDynamicPara) {
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

// `write` adds the fields of one item.
template <typename Item, typename Write>
std::optional<Records> EncodeList(RequestType type, const std::vector<Item>& items, Write write) {
    ItemGroups groups(ITEMS_MAX);
    for (const Item& item : items) {
        FieldWriter fields;
        write(fields, item);
        if (!fields.IsReadable() || fields.Text().size() > GROUP_MAX) {
            return std::nullopt;
        }
        groups.Add(fields.Text(), fields.Text().size());
    }
    Records records;
    for (const ItemGroup& group : groups.Groups()) {
        records.push_back(MakeRecord(type, PayloadOf(group)));
    }
    return records;
}

std::optional<RequestMsg> EncodeOne(RequestType type, const FieldWriter& fields) {
    if (!fields.IsReadable() || fields.Text().size() > PM_PIPE_BUF_MAX) {
        return std::nullopt;
    }
    return MakeRecord(type, fields.Text());
}

// Reads the number of items of a record that holds one item: it has no meaning there.
void SkipCount(FieldReader& in) {
    uint32_t count = 0;
    in.ReadNumber(count);
}

}  // namespace

bool HasDynamicPara(std::string_view sender) {
    return sender != ACCESS_MANAGER;
}

std::optional<Records> EncodeLaunchRequests(RequestType type,
                                            const std::vector<StartAppInfo>& items,
                                            std::string_view sender) {
    const bool hasDynamicPara = HasDynamicPara(sender);
    if (!std::all_of(items.begin(), items.end(), [=](const StartAppInfo& item) {
            return IsWithinLimits(item, hasDynamicPara);
        })) {
        return std::nullopt;
    }
    return EncodeList(type, items, [=](FieldWriter& fields, const StartAppInfo& item) {
        fields.Add(item.appName);
        fields.Add(item.argv);
        if (!hasDynamicPara) {
            return;
        }
        fields.Add(item.dynamicPara.size());
        for (const auto& [index, values] : item.dynamicPara) {
            fields.Add(index);
            fields.Add(values);
        }
    });
}

std::vector<LimitBreach> DecodeLaunchRequest(const RequestMsg& record, std::string_view sender,
                                             std::vector<StartAppInfo>& out) {
    const bool hasDynamicPara = HasDynamicPara(sender);
    std::vector<LimitBreach> breaches;
    FieldReader in(PayloadOf(record));
    uint32_t count = 0;
    in.ReadNumber(count);
    if (count > ITEMS_MAX) {
        breaches.push_back({.limit = Limit::ITEMS, .number = count});
        return breaches;
    }
    out.clear();
    out.resize(count);
    for (StartAppInfo& item : out) {
        uint32_t arguments = 0;
        if (!in.ReadText(item.appName)) {
            break;
        }
        in.ReadNumber(arguments);
        if (arguments > ARGUMENTS_MAX) {
            breaches.push_back({.limit = Limit::ARGUMENTS, .number = arguments});
            continue;
        }
        in.ReadTexts(arguments, item.argv);
        if (!hasDynamicPara) {
            continue;
        }
        if (const auto breach = DecodeDynamicPara(in, item.dynamicPara)) {
            breaches.push_back(*breach);
            break;
        }
    }
    return breaches;
}

std::optional<LimitBreach> DecodeDynamicPara(FieldReader& in,
                                             std::map<int, std::vector<std::string>>& out) {
    out.clear();
    size_t parameters = 0;
    in.ReadNumber(parameters);
    if (parameters > DYNAMIC_PARAMETERS_MAX) {
        return LimitBreach{.limit = Limit::DYNAMIC_PARAMETERS, .number = parameters};
    }
    for (size_t i = 0; i < parameters; ++i) {
        int index = 0;
        size_t values = 0;
        in.ReadNumber(index);
        if (index > DYNAMIC_INDEX_MAX) {
            return LimitBreach{.limit = Limit::DYNAMIC_INDEX, .index = index};
        }
        in.ReadNumber(values);
        if (values > DYNAMIC_VALUES_MAX) {
            return LimitBreach{.limit = Limit::DYNAMIC_VALUES, .number = values, .index = index};
        }
        if (values > 0) {
            in.ReadTexts(values, out[index]);
        }
    }
    return std::nullopt;
}

std::optional<Records> EncodeTermRequests(const std::vector<TermAppInfo>& items) {
    return EncodeList(TERM_APP, items, [](FieldWriter& fields, const TermAppInfo& item) {
        fields.Add(item.appName);
    });
}

std::optional<LimitBreach> DecodeTermRequest(const RequestMsg& record,
                                             std::vector<TermAppInfo>& out) {
    FieldReader in(PayloadOf(record));
    uint32_t count = 0;
    in.ReadNumber(count);
    if (count > ITEMS_MAX) {
        return LimitBreach{.limit = Limit::ITEMS, .number = count};
    }
    out.clear();
    out.resize(count);
    for (size_t i = 0; i < out.size() && in.ReadText(out[i].appName); ++i) {
    }
    return std::nullopt;
}

RequestMsg EncodeStateReport(BaseServiceStateType state) {
    FieldWriter fields;
    fields.Add(1);
    fields.Add(static_cast<uint32_t>(state));
    return MakeRecord(BASESERVICE_STATE_REPORT, fields.Text());
}

void DecodeStateReport(const RequestMsg& record, BaseServiceStateInfo& out) {
    FieldReader in(PayloadOf(record));
    SkipCount(in);
    in.ReadNumber(out.state);
}

std::optional<RequestMsg> EncodeExecutionReport(const AppExecInfo& info) {
    FieldWriter fields;
    fields.Add(1);
    fields.Add(info.appName);
    fields.Add(info.pid);
    fields.Add(info.gid);
    fields.Add(info.state);
    return EncodeOne(APP_EXECUTION_REPORT, fields);
}

void DecodeExecutionReport(const RequestMsg& record, AppExecInfo& out) {
    FieldReader in(PayloadOf(record));
    SkipCount(in);
    in.ReadText(out.appName);
    in.ReadNumber(out.pid);
    in.ReadNumber(out.gid);
    in.ReadNumber(out.state);
}

std::optional<RequestMsg> EncodeStartupCfgRequest(RequestType type, const StartupCfgInfo& info) {
    FieldWriter fields;
    fields.Add(1);
    fields.Add(info.path);
    fields.Add(info.matchData.size());
    for (const auto& [key, value] : info.matchData) {
        fields.Add(key);
        fields.Add(value);
    }
    return EncodeOne(type, fields);
}

void DecodeStartupCfgRequest(const RequestMsg& record, StartupCfgInfo& out) {
    FieldReader in(PayloadOf(record));
    uint32_t pairs = 0;
    out.matchData.clear();
    SkipCount(in);
    in.ReadText(out.path);
    in.ReadNumber(pairs);
    if (pairs > MATCH_PAIRS_MAX) {
        return;
    }
    std::string key;
    for (uint32_t i = 0; i < pairs && in.ReadText(key); ++i) {
        std::string value;
        in.ReadText(value);
        out.matchData.emplace(key, value);
    }
}

std::optional<RequestMsg> EncodeQuery(const std::vector<std::string>& names) {
    BinaryWriter fields;
    std::map<std::string, uint32_t> answer;
    fields.AddNumber(names.size());
    for (const std::string& name : names) {
        fields.AddText(name);
        answer[name] = 0;
    }
    // The daemon sends no answer that does not fit into one record.
    if (fields.Bytes().size() > PM_PIPE_BUF_MAX || !EncodeDetailStatus(answer)) {
        return std::nullopt;
    }
    return MakeRecord(QUERY_APP_STATE, fields.Bytes());
}

std::optional<std::vector<std::string>> DecodeQuery(const RequestMsg& record) {
    BinaryReader in(PayloadOf(record));
    uint32_t count = 0;
    if (!in.ReadNumber(count) || count > in.Left()) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    for (uint32_t i = 0; i < count; ++i) {
        if (!in.ReadText(names.emplace_back())) {
            return std::nullopt;
        }
    }
    return names;
}

}  // namespace ProcMgr::Message
