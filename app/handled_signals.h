// The signals whose dispositions a child has to reset: the ones that the daemon changes, and the
// ones for which a library in the daemon has installed a handler. A child needs 18 us to ask the
// kernel for all 64, a third of its time before execve. When launches follow each other the parent
// asks once for many children.
#pragma once

#include <csignal>

#include "app/sys.h"
#include "main/common/daemon_signals.h"

namespace ProcMgr::App {

// The set for the calling process. Makes system calls only: a child may call it.
inline sigset_t ReadHandledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : CHANGED_SIGNALS) {
        sigaddset(&signals, signal);
    }
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction present {};
        const bool isKnown = Sys::sigaction(signal, nullptr, &present) == 0;
        if (isKnown && present.sa_handler != SIG_DFL && present.sa_handler != SIG_IGN) {
            sigaddset(&signals, signal);
        }
    }
    return signals;
}

}  // namespace ProcMgr::App
