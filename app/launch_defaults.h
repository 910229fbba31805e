// What every started process inherits from the daemon, read once during start-up: the locked-memory
// limit and the HOME of the default account.
#pragma once

namespace ProcMgr::App {

// Sets the daemon's own locked-memory limit from the common environment file; without a usable
// entry it stays as it is.
void SetLockedMemoryLimit();

// Looks up the HOME of the default account and stores it in ProcMgrEnv.
void InquireHomeEnvVariable();

}  // namespace ProcMgr::App
