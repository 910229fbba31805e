// Exits in words: what a raw wait status says, for the log.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <string>

namespace ProcMgr::App {

// Logs one line that says how a process ended.
void LogExitStatus(int32_t status, const std::string& appName, int32_t pid);

// The raw wait status that waitpid would give for an exit that waitid has found.
int32_t ToWaitStatus(const siginfo_t& info);

}  // namespace ProcMgr::App
