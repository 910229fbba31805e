// Blocks signals while a thread is created, so that they are not handled on the new thread: a
// thread starts with the signal mask of the thread that creates it. Used by the platform libraries,
// the daemon and the client library.
#pragma once

#include <signal.h>

namespace Wire {

// Signals that the kernel sends to a thread for the thread's own fault. They are not blocked: when
// the signal of a fault is blocked, the kernel ends the process at once, without any handler.
inline constexpr int FAULT_SIGNALS[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// Blocks all other signals in the calling thread from the constructor to the destructor, which must
// run on the same thread.
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
