// The log lines of the platform libraries, about a file that they read or about the messages that
// they pass on. The daemon sets a function that writes these lines to its log.
#pragma once

// Called on any thread, also on several threads at the same time. `level` is one of syslog.h
// (LOG_ERR, LOG_WARNING, ...); `text` is one line without control characters, valid during the
// call. Must neither block nor throw, because it is called on the threads that serve all peers.
using DiagnosticSink = void (*)(int level, const char* text);

// Replaces the sink. With null, and before the first call, lines are dropped. Any thread; on return
// a call of the previous sink may still be running.
void SetDiagnosticSink(DiagnosticSink sink);
