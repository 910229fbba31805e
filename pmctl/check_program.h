// Whether the program of an entry can be started: the checks of the daemon before a start, and
// those of the kernel, computed from the metadata of the files. So they hold for every user,
// whoever runs the check.
#pragma once

#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

// The program, its arguments, its user and its group.
void CheckProgram(const CheckedEntry& entry);

}  // namespace ProcMgr::Pmctl
