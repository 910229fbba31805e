// Starts the client library's threads. They take no signal, so that the signals of the service are
// handled on its own threads only.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <optional>
#include <thread>
#include <utility>

namespace ProcMgr::Agent {

// Nothing when the system has no thread left.
template <typename Function>
std::optional<std::thread> StartSignalFreeThread(Function&& function) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    // A new thread inherits the mask of the one that makes it.
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    std::optional<std::thread> thread;
    try {
        thread.emplace(std::forward<Function>(function));
    } catch (const std::exception&) {
        thread.reset();
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return thread;
}

}  // namespace ProcMgr::Agent
