// The daemon's lines on their way to the system logger and to the kernel log. Whoever logs formats
// a line into a ring and goes on; one thread writes the rings out. A line that finds no room is
// dropped and counted; the count is logged when the logger takes lines again.
#pragma once

#include <chrono>
#include <cstdarg>

namespace ProcMgr {

enum class LogSink { SYSTEM, KERNEL };

// Functions of the process: there is one log. Any thread may call them.
namespace LogQueue {

// Adds one line; the thread is started with the first. `level` is LOG_ERR, LOG_WARNING, LOG_INFO
// or LOG_DEBUG. Never waits for a sink.
void Add(LogSink sink, int level, const char* format, va_list arguments);

// Writes out what is queued, for at most `patience`, and ends the thread.
void Close(std::chrono::milliseconds patience);

// Writes out what can be written at once. Async-signal-safe: for a process that is about to end.
void WriteInSignal();

}  // namespace LogQueue

}  // namespace ProcMgr
