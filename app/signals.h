// Signals to managed processes. Called with the lock of the record's container held, and only while
// the exit of the process has not been collected: the pid of a collected process may belong to
// another process.
#pragma once

#include <cstdint>
#include <string>

namespace ProcMgr::App {

// Sends a signal and logs it. True when it was sent; false, with a log line, when the pid is below
// 1 or the kernel refuses the signal.
bool SendSignal(int signal, const std::string& appName, int32_t pid);

}  // namespace ProcMgr::App
