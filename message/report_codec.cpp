#include "message/report_codec.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>

#include "message/binary_fields.h"
#include "message/text_fields.h"

namespace ProcMgr::Message {
namespace {

// The shortest item of a state report has an empty name and four numbers of one digit.
constexpr size_t STATE_ITEM_MIN = std::string_view("#0#0#0#0#").size();

bool IsWhole(const RequestMsg& record, RequestType type) {
    return record.type == type && record.size <= PM_PIPE_BUF_MAX;
}

// Unlike FieldReader, the functions below accept only complete fields and plain digits: a report
// that differs from the daemon's format is malformed.

// Takes the next field and its separator off `text`; false when there is no separator.
bool TakeField(std::string_view& text, std::string_view& field) {
    const size_t end = text.find(SEPARATOR);
    if (end == std::string_view::npos) {
        return false;
    }
    field = text.substr(0, end);
    text.remove_prefix(end + 1);
    return true;
}

bool TakeNumber(std::string_view& text, uint32_t& number) {
    std::string_view field;
    if (!TakeField(text, field)) {
        return false;
    }
    const char* const end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data(), end, number);
    return error == std::errc() && stop == end;
}

bool TakeItem(std::string_view& text, AppStateInfo& item) {
    std::string_view name;
    if (!TakeField(text, name)) {
        return false;
    }
    item.appName = name;
    return TakeNumber(text, item.pid) && TakeNumber(text, item.gid) &&
           TakeNumber(text, item.reportType) && TakeNumber(text, item.result);
}

}  // namespace

std::string EncodeAppState(const AppStateInfo& info) {
    FieldWriter fields;
    fields.Add(info.appName);
    fields.Add(info.pid);
    fields.Add(info.gid);
    fields.Add(info.reportType);
    fields.Add(info.result);
    return fields.Text();
}

std::optional<std::vector<AppStateInfo>> DecodeAppStates(const RequestMsg& record) {
    if (!IsWhole(record, APP_STATE_REPORT)) {
        return std::nullopt;
    }
    std::string_view text = PayloadOf(record);
    uint32_t count = 0;
    // The check of the count bounds the memory for the items by the length of the payload.
    if (!TakeNumber(text, count) || count > text.size() / STATE_ITEM_MIN) {
        return std::nullopt;
    }
    std::vector<AppStateInfo> items(count);
    const bool isGood = std::all_of(items.begin(), items.end(),
                                    [&](AppStateInfo& item) { return TakeItem(text, item); });
    return isGood ? std::optional(std::move(items)) : std::nullopt;
}

std::optional<RequestMsg> EncodeDetailStatus(const std::map<std::string, uint32_t>& statusByName) {
    BinaryWriter fields;
    fields.AddNumber(statusByName.size());
    for (const auto& [name, status] : statusByName) {
        fields.AddText(name);
        fields.AddNumber(status);
        if (fields.Bytes().size() > PM_PIPE_BUF_MAX) {
            return std::nullopt;
        }
    }
    return MakeRecord(APP_DETAIL_STATUS_REPORT, fields.Bytes());
}

std::optional<std::map<std::string, uint32_t>> DecodeDetailStatus(const RequestMsg& record) {
    BinaryReader in(IsWhole(record, APP_DETAIL_STATUS_REPORT) ? PayloadOf(record)
                                                              : std::string_view());
    uint32_t count = 0;
    if (!in.ReadNumber(count)) {
        return std::nullopt;
    }
    std::map<std::string, uint32_t> statusByName;
    for (uint32_t i = 0; i < count; ++i) {
        std::string name;
        uint32_t status = 0;
        if (!in.ReadText(name) || !in.ReadNumber(status)) {
            return std::nullopt;
        }
        statusByName[std::move(name)] = status;
    }
    return statusByName;
}

}  // namespace ProcMgr::Message
