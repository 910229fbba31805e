// The signals that a new thread must not take from the program's own threads: it inherits the mask
// of the thread that makes it.
#pragma once

#include <signal.h>

namespace Wire {

// Signals of a thread's own faults. The kernel ends a process at once whose thread has blocked the
// signal of its fault, so they stay open.
inline constexpr int FAULT_SIGNALS[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// Blocks all others in the calling thread for as long as it lives. Only for the thread that made
// it.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : FAULT_SIGNALS) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_{};
};

}  // namespace Wire
