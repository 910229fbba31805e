// The daemon's progress through boot: the time stamp that begins many log lines, and numbered
// points for the kernel's boot trace. Every room uses the stamp, the start-up sequence writes the
// points. Callable from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace ProcMgr {

inline constexpr const char* BOOT_TRACE_TAG = "PM";

// Boot-trace points.
inline constexpr uint32_t POINT_MAIN = 0;
inline constexpr uint32_t POINT_PRIORITY_APPS = 0x10000001;
inline constexpr uint32_t POINT_CONTINUE_INIT = 0x20000001;
inline constexpr uint32_t POINT_ZORNMGR_READY = 0x30000001;
inline constexpr uint32_t POINT_VINTOR_READY = 0x40000001;
inline constexpr uint32_t POINT_ALL_STARTED = 0xFFFFFFFF;

// The present value of the clock that the stamps show: the processor's virtual counter, or the
// monotonic clock in nanoseconds on a processor without one. Async-signal-safe.
uint64_t ReadBootCounter();

// "[SECONDSs][BOOT_TRACE][TAG]" with the seconds since boot: now, or when ReadBootCounter()
// returned `counter`.
std::string BootStrace(const std::string& tag);
std::string BootStraceAt(uint64_t counter, const std::string& tag);

// Writes one point to the kernel's boot trace, if the kernel has one, and the points POINT_MAIN,
// POINT_CONTINUE_INIT and POINT_ALL_STARTED to the serial console as well.
void WriteBootTracePoint(uint32_t code);

}  // namespace ProcMgr
