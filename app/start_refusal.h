// Why the daemon has not started a process. ProcessLauncher stores it in the history of the record.
#pragma once

#include <cstdint>

namespace ProcMgr::App {

enum class StartRefusal : uint8_t {
    NONE,
    ARGUMENTS,       // the arguments hold shell meta-strings
    MISSING,         // there is no program at the path
    NOT_EXECUTABLE,  // the user may not execute the program
    NO_USER,         // the user database does not have the user
    MODIFIED,        // the program has not the digest of the hash file, or it cannot be taken
    CORES,           // the cores cannot be used
    NO_PROCESS,      // the kernel has refused a process
};

}  // namespace ProcMgr::App
