// The raw wait status of a process that has ended: its log line, and its computation from the
// report of waitid. The records call the first, the reaper the second.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <string>

namespace ProcMgr::App {

// Logs one line about how a process ended. `status` is its raw wait status.
void LogExitStatus(int32_t status, const std::string& appName, int32_t pid);

// The raw wait status that waitpid would report for an exit that waitid has reported.
int32_t ToWaitStatus(const siginfo_t& info);

}  // namespace ProcMgr::App
