// Checks that a start cannot be abused: the arguments hold no shell meta-strings, and the
// configured user may execute the program. ProcessLauncher calls them in the parent, before every
// fork.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/start_refusal.h"
#include "app/user_groups.h"

namespace ProcMgr::App {

// Whether the argument holds a shell meta-string.
bool IsIllegalArgument(const std::string& argument);

// Whether a user may execute a program, and which rule says no.
enum class ExecuteRight {
    GRANTED,
    NO_BIT,        // root: nobody may execute it
    NO_OWNER_BIT,  // the owner of the program
    NO_MEMBER,     // another user, who is not in the program's group
    NO_GROUP_BIT,  // another user, in the program's group
};

// `groups`: those of the user `uid`; not used for root and the owner of the program. A user who is
// neither has to be a member of the program's group, and the group has to have the execute bit. The
// execute bit for others does not count.
ExecuteRight GetExecuteRight(const struct stat& program, uint32_t uid, const UserGroups& groups);

// NONE when the start may go on; else the reason, with a log line. `users` is used to look up the
// groups of a user who is not the owner of the program. Any thread, not with a lock held: waits for
// the program's file system and the user database.
StartRefusal CheckChildProParas(const std::string& appName, const std::string& execPath,
                                uint32_t uid, const std::vector<std::string>& arguments,
                                UserGroupsCache& users);

}  // namespace ProcMgr::App
