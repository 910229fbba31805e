// Whether the program of an entry can be started: the checks of the daemon before a start, and
// those of the kernel, computed from the metadata of the files. So they hold for every user,
// whoever runs the check.
#pragma once

#include <cstdint>
#include <string>

#include "app/user_groups.h"
#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

// The program, its arguments, its user and its group.
void CheckProgram(const CheckedEntry& entry);

// Whose process the program becomes.
struct Identity {
    uint32_t uid = 0;
    uint32_t gid = 0;
    const App::UserGroups& groups;
};

// A part of it: the file that the absolute path leads to. `identity`: null when the user's groups
// are not known.
void CheckProgramFile(const CheckedEntry& entry, const std::string& path, const Identity* identity);

}  // namespace ProcMgr::Pmctl
