// Which process a peer is: tells the processes of a service from those of others. Used where the
// messaging library decides whether a peer may have a service's pipe, and where the daemon decides
// under which name a process may register.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace Wire {

// The pid of the parent out of the contents of a /proc/PID/stat; nothing when it is none.
std::optional<pid_t> ParentOf(std::string_view stat);

// The pid of the parent of a process that is there; nothing when it has gone.
std::optional<pid_t> ReadParent(pid_t pid);

// How far up a process's ancestors are looked at.
inline constexpr int GENERATIONS_MAX = 64;

// True when `pid` is `ancestor` or descends from it over at most 64 generations that all still
// live: who has lost its parent is a descendant of nobody's any more. False for 0 and below.
bool IsSameOrDescendant(pid_t pid, pid_t ancestor);

}  // namespace Wire
