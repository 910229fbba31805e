// The request that binds applications marked for delayed core affinity to their cores. It travels
// on an owner's pipe as a record of its own: no RequestMsg has its length. Shared by the daemon and
// by the client library of the owners.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ProcMgr::Message {

// What `state` asks for.
inline constexpr uint8_t DELAY_BIND = 0;
inline constexpr uint8_t DELAY_RESET = 1;

// As it is on the wire: little-endian. A request that wants a response gets the 32-bit result.
struct DelayCoreAffinityReq {
    uint8_t state = DELAY_BIND;
    int8_t checkNum = 3;         // re-checks for threads made meanwhile, 100 at most; -1: no limit
    uint8_t isWakeUpEnable = 0;  // 1: a wake-up of the system undoes the bind
    uint8_t reserved = 0;
    uint32_t checkInterval = 1000;  // milliseconds between re-checks, 100 to 60000
};
static_assert(sizeof(DelayCoreAffinityReq) == 8);

// Results.
inline constexpr uint32_t DELAY_OK = 0;
inline constexpr uint32_t DELAY_BUSY = 15794955;    // a reset while the last bind is re-checked
inline constexpr uint32_t DELAY_FAILED = 15794956;  // an unknown state, or a thread not bound

}  // namespace ProcMgr::Message
