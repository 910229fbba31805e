// Marks of the daemon's progress through boot: the stamp that begins many log lines, and numbered
// points for the kernel's boot trace. Callable from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace ProcMgr {

// The clock of the stamps: the processor's virtual counter where it has one. Async-signal-safe.
uint64_t ReadBootCounter();

// "[SECONDSs][BOOT_TRACE][TAG]" with the seconds since boot, now or at a counter read before.
std::string BootStrace(const std::string& tag);
std::string BootStraceAt(uint64_t counter, const std::string& tag);

// Hands one point to the kernel's boot trace and, for the most important ones, to the serial
// console. A kernel without the interface is no failure.
void WriteBootTracePoint(uint32_t code);

}  // namespace ProcMgr
