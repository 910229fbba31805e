// The request that binds the applications marked for delayed core affinity to their cores, and its
// result. The request travels on an owner's pipe as a record of its own, which is recognised by its
// length: no RequestMsg is that short. Encoded and decoded by the daemon and by the client library.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace ProcMgr::Message {

// The values of `state`.
inline constexpr uint8_t DELAY_BIND = 0;
inline constexpr uint8_t DELAY_RESET = 1;

// The layout is that of the wire; the bytes of `checkInterval` are little-endian there. If the
// sender wants a response, its body is the 32-bit result.
struct DelayCoreAffinityReq {
    uint8_t state = DELAY_BIND;
    int8_t checkNum = 3;  // re-checks for threads created since the bind, at most 100; -1: no limit
    uint8_t isWakeUpEnable = 0;  // 1: a wake-up of the system undoes the bind
    uint8_t reserved = 0;
    uint32_t checkInterval = 1000;  // milliseconds between re-checks, 100 to 60000
};
static_assert(sizeof(DelayCoreAffinityReq) == 8);

// Results.
inline constexpr uint32_t DELAY_OK = 0;
inline constexpr uint32_t DELAY_BUSY = 15794955;    // a reset while the last bind is re-checked
inline constexpr uint32_t DELAY_FAILED = 15794956;  // an unknown state, or a thread not bound

// Pure functions for any thread. `reserved` is sent as 0 and not read.
std::array<uint8_t, sizeof(DelayCoreAffinityReq)> EncodeDelayRequest(
    const DelayCoreAffinityReq& request);
DelayCoreAffinityReq DecodeDelayRequest(
    std::span<const uint8_t, sizeof(DelayCoreAffinityReq)> bytes);
std::array<uint8_t, sizeof(uint32_t)> EncodeDelayResult(uint32_t result);
// Nothing when the body of the response has another length.
std::optional<uint32_t> DecodeDelayResult(std::span<const uint8_t> body);

}  // namespace ProcMgr::Message
