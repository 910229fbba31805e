// Starts the threads of the client library with all signals blocked, so that the signals of the
// service are handled on the service's own threads only. Used by OwnerChannel and HeartbeatSender.
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
