// The bytes that owners and the daemon exchange, to values and back: packet headers, records and
// what the records carry. Called by OwnerChannel and RegisterUpload. Pure functions that may be
// called from any thread; none reads past what it is given, and what they allocate is bounded by
// the input's length.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "message/delay_core_affinity.h"
#include "message/enum_names.h"
#include "message/request_msg.h"

namespace ProcMgr::Agent {

inline constexpr size_t PACKET_HEADER_SIZE = 16;
inline constexpr size_t PACKET_BODY_MAX = 65536;
inline constexpr size_t PACKET_MAX = PACKET_HEADER_SIZE + PACKET_BODY_MAX;

enum class PacketKind : uint32_t {
    REQUEST = 1,
    CALL = 2,  // a request that wants a response
    RESPONSE = 3,
};

// One packet as received. `body` points into the bytes that it was decoded from.
struct Packet {
    PacketKind kind = PacketKind::REQUEST;
    uint64_t sequence = 0;
    std::span<const uint8_t> body;
};

// A packet that carries one record.
using RecordPacket = std::array<uint8_t, PACKET_HEADER_SIZE + sizeof(Message::RequestMsg)>;

// The path of the pipe of a service; empty when the name cannot be a service's or its path is too
// long for a socket address.
std::string PipePath(std::string_view serviceName);
// Likewise of a server.
std::string ServerPath(std::string_view serverName);

// `body`: at most PACKET_BODY_MAX bytes.
std::vector<uint8_t> EncodePacket(PacketKind kind, uint64_t sequence,
                                  std::span<const uint8_t> body);
RecordPacket EncodeRecordPacket(PacketKind kind, uint64_t sequence,
                                const Message::RequestMsg& record);

// Nothing when the packet is shorter than its header, longer than PACKET_MAX, of another magic or
// of an unknown kind: the connection is then to be ended.
std::optional<Packet> DecodePacket(std::span<const uint8_t> bytes);

// Nothing when the body is not one whole record or claims more payload than a record holds.
std::optional<Message::RequestMsg> DecodeRecord(std::span<const uint8_t> body);

// The record by which a base service reports its own state.
Message::RequestMsg MakeStateReport(BaseServiceStateType state);

// What an APP_STATE_REPORT carries. Nothing when the record is of another type or when any item is
// missing, cut short or holds no number where one belongs; bytes after the last item are ignored.
std::optional<std::vector<Message::AppStateInfo>> DecodeAppStates(
    const Message::RequestMsg& record);

// Requests of an owner. A list takes as many records as it needs, in its order. Nothing when a text
// holds a '#', or an item does not fit into a record or has more arguments or dynamic parameters
// than the daemon takes. `hasDynamicPara`: false for requests of the access manager, from which the
// daemon expects none.
using Records = std::vector<Message::RequestMsg>;
std::optional<Records> MakeStartRequests(const std::vector<Message::StartAppInfo>& items,
                                         bool hasDynamicPara);
std::optional<Records> MakeRestartRequests(const std::vector<Message::RestartAppInfo>& items,
                                           bool hasDynamicPara);
std::optional<Records> MakeTermRequests(const std::vector<Message::TermAppInfo>& items);
std::optional<Records> MakeExecutionReport(const Message::AppExecInfo& info);
// `type`: LOAD_STARTUP_CFG or RELOAD_STARTUP_CFG.
std::optional<Records> MakeStartupCfgRequest(Message::RequestType type,
                                             const Message::StartupCfgInfo& info);
// The body of the packet that asks for delayed core affinity.
std::array<uint8_t, sizeof(Message::DelayCoreAffinityReq)> MakeDelayRequest(
    const Message::DelayCoreAffinityReq& request);
// Names may hold any byte. Nothing when they, or the answer, do not fit into one record.
std::optional<Records> MakeQuery(const std::vector<std::string>& names);

// The result that a response's body consists of; nothing when it has another length.
std::optional<uint32_t> DecodeResult(std::span<const uint8_t> body);

// What an APP_DETAIL_STATUS_REPORT carries; nothing when it is another record or is cut short.
std::optional<std::map<std::string, uint32_t>> DecodeDetailStatus(
    const Message::RequestMsg& record);

}  // namespace ProcMgr::Agent
