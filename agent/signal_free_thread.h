// Starts the client library's threads. They take no signal, so that the signals of the service are
// handled on its own threads only.
#pragma once

#include <exception>
#include <optional>
#include <thread>
#include <utility>

#include "wire/blocked_signals.h"

namespace ProcMgr::Agent {

// Nothing when the system has no thread left.
template <typename Function>
std::optional<std::thread> StartSignalFreeThread(Function&& function) {
    const Wire::BlockedSignals blocked;
    std::optional<std::thread> thread;
    try {
        thread.emplace(std::forward<Function>(function));
    } catch (const std::exception&) {
        thread.reset();
    }
    return thread;
}

}  // namespace ProcMgr::Agent
