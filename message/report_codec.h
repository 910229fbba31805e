// The payloads of the records that the daemon sends to owners: encoded by the daemon, decoded by
// the client library. Pure functions for any thread; none logs, throws on any input (but for
// std::bad_alloc) or reads outside of a payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "message/record_codec.h"
#include "message/request_msg.h"

namespace ProcMgr::Message {

// The longest encoded item of an APP_STATE_REPORT that the daemon accepts, in bytes.
inline constexpr size_t STATE_ITEM_MAX = 3959;

// One item of an APP_STATE_REPORT, of any length. The name is not checked for separators.
std::string EncodeAppState(const AppStateInfo& info);
// The items of an APP_STATE_REPORT. Nothing when the record is of another type or claims more bytes
// than a record has, or when any item is missing, cut short or has no number where one belongs.
// Bytes after the last item are ignored.
std::optional<std::vector<AppStateInfo>> DecodeAppStates(const RequestMsg& record);

// An APP_DETAIL_STATUS_REPORT; nothing when the entries do not fit into one record.
std::optional<RequestMsg> EncodeDetailStatus(const std::map<std::string, uint32_t>& statusByName);
// Nothing when the record is of another type, claims more bytes than a record has or is cut short.
std::optional<std::map<std::string, uint32_t>> DecodeDetailStatus(const RequestMsg& record);

}  // namespace ProcMgr::Message
