// The queue between the daemon's log functions and the sinks: the system logger and the kernel log.
// The logging thread formats its line into a ring of memory; one thread writes the rings out. A
// line without room in its ring is dropped and counted; the count is logged when the logger takes
// lines again. Only log.cpp calls these functions.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <string_view>

namespace ProcMgr {

enum class LogSink { SYSTEM, KERNEL };

// There is one queue in the process. Callable from any thread.
namespace LogQueue {

// Adds one line; the first line starts the thread. `level` is LOG_ERR, LOG_WARNING, LOG_INFO or
// LOG_DEBUG. Never waits for a sink.
void Add(LogSink sink, int level, const char* format, va_list arguments);

// Adds one line of a service for the system logger; see LogServiceLine(). Never waits for a sink.
bool AddOfService(const char* name, pid_t pid, std::string_view text);

// Writes out the queued lines, for at most `patience`, and ends the thread.
void Close(std::chrono::milliseconds patience);

// Wakes the thread if it waits for a logger whose path did not exist, and the path exists now.
// Without such looks the thread finds the logger after up to 7 seconds.
void LookForLogger();
// Whether the thread waits for a logger whose path did not exist.
bool IsLoggerMissing();

// The number of lines that have been dropped since the start of the process.
uint64_t CountDropped();

// Writes out the queued lines that can be written at once. Async-signal-safe; for a process that is
// about to end.
void WriteInSignal();

}  // namespace LogQueue

}  // namespace ProcMgr
