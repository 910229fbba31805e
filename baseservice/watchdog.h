// The hardware watchdog: functions that load its kernel module and switch on its feeding. The
// start-up sequence does not call them at present; the integration of a board with a watchdog calls
// them through ProcessManager. Callable from any thread.
#pragma once

#include <string>

#include "config/settings.h"

namespace ProcMgr {

// Loads the kernel module with the configured time-out and action, unless it is loaded already, or
// the settings or the boot command line disable the watchdog. True when the module is loaded
// afterwards.
bool InsertWatchDogKo(const ProcMgrSettings& settings);

// Whether the kernel lists the module as loaded.
bool IsWatchDogKoInserted(const std::string& module);

// Loads the module file, whether or not the module is loaded. False, with a log line, on failure or
// when the boot command line disables the watchdog.
bool InsmodKo(const ProcMgrSettings& settings);

// Switches on the feeding of the watchdog. `timeout`: seconds, as decimal digits. False, with a log
// line, when the device fails. Throws std::invalid_argument or std::out_of_range, both named
// "stoi", when `timeout` is no number or its milliseconds do not fit an int.
bool EnableFeedDog(const std::string& timeout);

}  // namespace ProcMgr
