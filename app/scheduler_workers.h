// The worker processes of the task-scheduler daemon, which would outlive the daemon when it is
// killed. Called by the code that kills a managed process, before the kill.
#pragma once

#include <cstdint>
#include <string>

namespace ProcMgr::App {

// Kills the workers of the task-scheduler daemon whose process is `rqdPid`: the processes of its
// name whose parent is that process or process 1. Does nothing for an application with another
// name than "RqDaemon". A list of processes that cannot be read is logged. Reads /proc; the caller
// may hold a lock.
void TermRqdSubProc(const std::string& appName, int32_t rqdPid);

}  // namespace ProcMgr::App
