// Signals to managed processes. The caller makes sure, under the lock of the record's container,
// that the exit of the process has not been collected: a free pid must never be signalled.
#pragma once

#include <cstdint>
#include <string>

namespace ProcMgr::App {

// True when the signal was sent.
bool SendSignal(int signal, const std::string& appName, int32_t pid);

}  // namespace ProcMgr::App
