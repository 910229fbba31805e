// Values that every started process gets from the daemon: the locked-memory limit and the HOME of
// the default account. The daemon reads them once, during start-up, before the first launch.
#pragma once

namespace ProcMgr::App {

// Sets the daemon's own locked-memory limit, which its children inherit, from the common
// environment file. The limit stays unchanged without the file or its entry, and, with a log line,
// when the value is no number of bytes or cannot be set.
void SetLockedMemoryLimit();

// Looks up the home directory of the default account and stores it in ProcMgrEnv. Logs the result.
void InquireHomeEnvVariable();

}  // namespace ProcMgr::App
