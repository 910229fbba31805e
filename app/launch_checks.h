// Checks that a start cannot be abused: the arguments hold no shell meta-strings, and the
// configured user may execute the program. ProcessLauncher calls them in the parent, before every
// fork.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/start_refusal.h"
#include "app/user_groups.h"

namespace ProcMgr::App {

// NONE when the start may go on; else the reason, with a log line. `users` is used to look up the
// groups of a user who is not the owner of the program. Any thread, not with a lock held: waits for
// the program's file system and the user database.
StartRefusal CheckChildProParas(const std::string& appName, const std::string& execPath,
                                uint32_t uid, const std::vector<std::string>& arguments,
                                UserGroupsCache& users);

}  // namespace ProcMgr::App
