// The signals that the daemon handles: SIGCONT ends the quick-start wait, SIGTERM and SIGINT
// request an orderly stop, SIGHUP is only logged, SIGPIPE is ignored. A fault signal of the daemon
// writes out the log before it ends the process; the other handlers set a flag and wake a thread:
// SIGTERM and SIGINT the main thread, SIGHUP the wait thread, which may be waiting for a library
// when the stop is requested. SIGCHLD is blocked, and the wait thread reads it from a descriptor.
// main() installs the handlers; the child set-up uses CHANGED_SIGNALS.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>

namespace ProcMgr {

// Every signal whose disposition the daemon changes. A child restores the default dispositions.
inline constexpr int CHANGED_SIGNALS[] = {SIGCONT, SIGPIPE, SIGTERM, SIGINT, SIGCHLD, SIGHUP,
                                          SIGSEGV, SIGBUS,  SIGFPE,  SIGILL, SIGABRT};

// To be called before anything else, so that a SIGCONT right after the daemon's start is not
// missed.
void InstallContinueSignal();
// The handler of SIGCONT: stores the boot counter and sets the continue flag. Every later SIGCONT
// replaces the stored counter.
void OnContinueSignal(int signal);
bool IsContinueReceived();
// The boot counter at the last SIGCONT; 0 before the first.
uint64_t GetContinueCounter();

// Installs the handlers of all signals but SIGCONT. A second stop signal ends the process at once.
// Blocks SIGCHLD in the calling thread and so in the threads that it starts.
void InstallSignals();
// A descriptor that is readable while a SIGCHLD is pending; -1 before InstallSignals() and when the
// system has given none.
int GetChildSignalFd();
// Unblocks SIGCHLD in the calling thread. Without the descriptor the wait thread calls it: the
// handler of SIGCHLD then wakes the thread with the event descriptor.
void UnblockChildSignal();
// Takes the pending SIGCHLD. Returns the pid of the child whose end has raised it; 0 when none is
// pending. Of children that end while a SIGCHLD is pending the signal names only the first, and
// another process may have sent it. Does not wait.
pid_t TakeChildSignal();
bool IsStopRequested();
// Waits until a stop signal has arrived or WakeStopEvent() has been called since the last return;
// may also return without either.
// One thread calls it, the main thread.
void WaitForStopEvent();
// Async-signal-safe.
void WakeStopEvent();
// Whether a SIGHUP has arrived since the last call.
bool TakeHangUp();

// An event descriptor that becomes readable when SIGHUP has arrived, or a SIGCHLD in a thread that
// does not block it; -1 before InstallSignals(). A read of 8 bytes clears the event.
int GetSignalEventFd();
// Makes the event descriptor readable. Async-signal-safe.
void WakeSignalEvent();

}  // namespace ProcMgr
