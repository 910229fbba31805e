// Marks of the daemon's progress through boot: the stamp that begins many log lines, and numbered
// points for the kernel's boot trace. Callable from any thread.
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

// The clock of the stamps: the processor's virtual counter where it has one. Async-signal-safe.
uint64_t ReadBootCounter();

// "[SECONDSs][BOOT_TRACE][TAG]" with the seconds since boot, now or at a counter read before.
std::string BootStrace(const std::string& tag);
std::string BootStraceAt(uint64_t counter, const std::string& tag);

// Hands one point to the kernel's boot trace and, for the most important ones, to the serial
// console. A kernel without the interface is no failure.
void WriteBootTracePoint(uint32_t code);

}  // namespace ProcMgr
