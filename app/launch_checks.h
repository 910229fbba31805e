// Checks that a start cannot be abused: the arguments hold no shell meta-strings, and the
// configured user may execute the program. ProcessLauncher calls them in the parent, before every
// fork.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/user_groups.h"

namespace ProcMgr::App {

// True when the start may go on; false, with a log line, when a check refuses it. `users` is used
// to look up the groups of a user who is not the owner of the program. Any thread, not with a lock
// held: waits for the program's file system and the user database.
bool CheckChildProParas(const std::string& appName, const std::string& execPath, uint32_t uid,
                        const std::vector<std::string>& arguments, UserGroupsCache& users);

}  // namespace ProcMgr::App
