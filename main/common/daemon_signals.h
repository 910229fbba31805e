// The signals that the daemon handles: SIGCONT ends the quick-start wait, SIGTERM and SIGINT ask
// for an orderly stop, SIGCHLD wakes the reaper, SIGHUP and SIGPIPE are ignored, a fault of the
// daemon's own writes out its log before it ends the process. The other handlers only store and
// wake. Also the one list of dispositions that a child has to take back.
#pragma once

#include <csignal>
#include <cstdint>

namespace ProcMgr {

// Every signal whose disposition the daemon changes.
inline constexpr int CHANGED_SIGNALS[] = {SIGCONT, SIGPIPE, SIGTERM, SIGINT, SIGCHLD, SIGHUP,
                                          SIGSEGV, SIGBUS,  SIGFPE,  SIGILL, SIGABRT};

// Installed first of all, so that a SIGCONT sent at once is not missed.
void InstallContinueSignal();
// Stores the boot counter and sets the continue flag; later signals only move the counter.
void OnContinueSignal(int signal);
bool IsContinueReceived();
// The counter at the last SIGCONT; 0 when there was none.
uint64_t GetContinueCounter();

// Installs all but SIGCONT's. A second stop signal ends the process at once. SIGCHLD is blocked in
// the calling thread and those that it starts.
void InstallSignals();
// From now on the calling thread gets SIGCHLD: no other has to wake up to pass it on.
void TakeChildSignals();
bool IsStopRequested();
// Whether a SIGHUP has come since the last call.
bool TakeHangUp();

// Becomes readable when a child has changed its state or a stop was asked for; -1 before
// InstallSignals. Read it to make it wait again.
int GetSignalEventFd();
// Makes it readable: async-signal-safe.
void WakeSignalEvent();

}  // namespace ProcMgr
