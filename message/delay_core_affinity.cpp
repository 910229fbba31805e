#include "message/delay_core_affinity.h"

#include "wire/little_endian.h"

namespace ProcMgr::Message {
namespace {

constexpr size_t STATE_OFFSET = offsetof(DelayCoreAffinityReq, state);
constexpr size_t CHECK_NUM_OFFSET = offsetof(DelayCoreAffinityReq, checkNum);
constexpr size_t WAKE_UP_OFFSET = offsetof(DelayCoreAffinityReq, isWakeUpEnable);
constexpr size_t INTERVAL_OFFSET = offsetof(DelayCoreAffinityReq, checkInterval);

}  // namespace

std::array<uint8_t, sizeof(DelayCoreAffinityReq)> EncodeDelayRequest(
    const DelayCoreAffinityReq& request) {
    std::array<uint8_t, sizeof(DelayCoreAffinityReq)> bytes{};
    bytes[STATE_OFFSET] = request.state;
    bytes[CHECK_NUM_OFFSET] = static_cast<uint8_t>(request.checkNum);
    bytes[WAKE_UP_OFFSET] = request.isWakeUpEnable;
    Wire::StoreLittleEndian(request.checkInterval, &bytes[INTERVAL_OFFSET]);
    return bytes;
}

DelayCoreAffinityReq DecodeDelayRequest(
    std::span<const uint8_t, sizeof(DelayCoreAffinityReq)> bytes) {
    DelayCoreAffinityReq request;
    request.state = bytes[STATE_OFFSET];
    request.checkNum = static_cast<int8_t>(bytes[CHECK_NUM_OFFSET]);
    request.isWakeUpEnable = bytes[WAKE_UP_OFFSET];
    request.checkInterval = Wire::LoadLittleEndian<uint32_t>(&bytes[INTERVAL_OFFSET]);
    return request;
}

std::array<uint8_t, sizeof(uint32_t)> EncodeDelayResult(uint32_t result) {
    std::array<uint8_t, sizeof(result)> body{};
    Wire::StoreLittleEndian(result, body.data());
    return body;
}

std::optional<uint32_t> DecodeDelayResult(std::span<const uint8_t> body) {
    return body.size() == sizeof(uint32_t)
               ? std::optional(Wire::LoadLittleEndian<uint32_t>(body.data()))
               : std::nullopt;
}

}  // namespace ProcMgr::Message
