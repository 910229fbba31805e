// The payloads of the records that services send to the daemon: encoded by the client library,
// decoded by the daemon. Pure functions for any thread; none logs, throws on any input (but for
// std::bad_alloc) or reads outside of a payload.
//
// A decoder reads to the end of the payload: fields after the end keep the value that they had. A
// list has as many items as announced, at most its limit. Only the last list of a record can be
// longer than the bytes that are left, so a record never costs more than one list of defaults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "message/enum_names.h"
#include "message/record_codec.h"
#include "message/request_msg.h"
#include "message/text_fields.h"

namespace ProcMgr::Message {

// The limits of one request.
inline constexpr uint32_t ITEMS_MAX = 1999;
inline constexpr uint32_t ARGUMENTS_MAX = 1024;      // of one item
inline constexpr size_t DYNAMIC_PARAMETERS_MAX = 3;  // of one item
inline constexpr int DYNAMIC_INDEX_MAX = 2;          // there is no lower bound
inline constexpr size_t DYNAMIC_VALUES_MAX = 1024;   // of one parameter
inline constexpr uint32_t MATCH_PAIRS_MAX = 102399;

enum class Limit { ITEMS, ARGUMENTS, DYNAMIC_PARAMETERS, DYNAMIC_INDEX, DYNAMIC_VALUES };

// A number in a request that is beyond its limit.
struct LimitBreach {
    Limit limit = Limit::ITEMS;
    uint64_t number = 0;  // of items, arguments, parameters or values
    int index = 0;        // of the dynamic parameter, for DYNAMIC_INDEX and DYNAMIC_VALUES
};

// False for the access manager: its items have no block of dynamic parameters.
bool HasDynamicPara(std::string_view sender);

// START_APP and RESTART_APP (`type`). The list takes as many records as it needs, in its order.
// Nothing when a text holds a separator, an item does not fit into a record, or an item is beyond a
// limit of the daemon, which would then misread the items after it. `sender`: the service.
std::optional<Records> EncodeLaunchRequests(RequestType type,
                                            const std::vector<StartAppInfo>& items,
                                            std::string_view sender);
// Returns the breaches in the order found. After too many items `out` is unchanged. An item with
// too many arguments is left without arguments and parameters, and the next item is read from the
// bytes after that number. After a breach in a block of dynamic parameters the items that follow
// are empty.
std::vector<LimitBreach> DecodeLaunchRequest(const RequestMsg& record, std::string_view sender,
                                             std::vector<StartAppInfo>& out);
// The block of dynamic parameters of one item. After a breach `out` holds the parameters before it.
std::optional<LimitBreach> DecodeDynamicPara(FieldReader& in,
                                             std::map<int, std::vector<std::string>>& out);

// TERM_APP. The encoder refuses, and the decoder reports breaches, as for START_APP.
std::optional<Records> EncodeTermRequests(const std::vector<TermAppInfo>& items);
std::optional<LimitBreach> DecodeTermRequest(const RequestMsg& record,
                                             std::vector<TermAppInfo>& out);

// BASESERVICE_STATE_REPORT.
RequestMsg EncodeStateReport(BaseServiceStateType state);
void DecodeStateReport(const RequestMsg& record, BaseServiceStateInfo& out);

// APP_EXECUTION_REPORT. Nothing when the name holds a separator or is too long.
std::optional<RequestMsg> EncodeExecutionReport(const AppExecInfo& info);
void DecodeExecutionReport(const RequestMsg& record, AppExecInfo& out);

// LOAD_STARTUP_CFG and RELOAD_STARTUP_CFG (`type`). Nothing when a text holds a separator or the
// texts are too long together.
std::optional<RequestMsg> EncodeStartupCfgRequest(RequestType type, const StartupCfgInfo& info);
// Of a repeated key the first value counts. More pairs than MATCH_PAIRS_MAX are all ignored.
void DecodeStartupCfgRequest(const RequestMsg& record, StartupCfgInfo& out);

// QUERY_APP_STATE. Names may hold any byte. Nothing when the names, or the answer to them, do not
// fit into one record.
std::optional<RequestMsg> EncodeQuery(const std::vector<std::string>& names);
// Nothing when the number of names or a length runs past the payload.
std::optional<std::vector<std::string>> DecodeQuery(const RequestMsg& record);

}  // namespace ProcMgr::Message
