// Checks in the parent, before every fork, that a start cannot be abused: no shell meta-strings in
// the arguments, and a program that the configured user may execute.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/user_groups.h"

namespace ProcMgr::App {

// True when the start may go on. `users` is asked for the groups of a user who does not own the
// program. Not with a lock held.
bool CheckChildProParas(const std::string& appName, const std::string& execPath, uint32_t uid,
                        const std::vector<std::string>& arguments, UserGroupsCache& users);

}  // namespace ProcMgr::App
