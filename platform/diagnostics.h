// Where the platform libraries say what is wrong: with a file that they read, or with the messages
// that they pass on. The daemon hands in a function that writes to its log.
#pragma once

// Called on any thread, one line at a time of each. `level` is one of syslog.h (LOG_ERR,
// LOG_WARNING, ...); `text` is one line without control characters, valid during the call. Must
// neither block nor throw: threads that serve others call it.
using DiagnosticSink = void (*)(int level, const char* text);

// Replaces the sink; null: lines are dropped, as they are before the first call. Any thread; the
// previous sink may still be running on return.
void SetDiagnosticSink(DiagnosticSink sink);
