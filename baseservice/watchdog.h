// The hardware watchdog: loading its kernel module and switching on its feeding. Nothing of the
// start-up sequence calls these yet; they are ready for it, on any thread.
#pragma once

#include <string>

#include "config/settings.h"

namespace ProcMgr {

// Loads the module with the configured time-out and action, unless it is loaded, disabled in the
// settings or disabled on the boot command line. True when the module is loaded.
bool InsertWatchDogKo(const ProcMgrSettings& settings);

// Whether the kernel lists the module as loaded.
bool IsWatchDogKoInserted(const std::string& module);

// Loads the module file. False, with a log line, on failure or when the boot command line forbids
// it.
bool InsmodKo(const ProcMgrSettings& settings);

// Switches on the feeding with a time-out in seconds, decimal digits. Throws what std::stoi throws
// for any other text.
bool EnableFeedDog(const std::string& timeout);

}  // namespace ProcMgr
