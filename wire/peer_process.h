// Finds out whether a peer is a process of a service: the service's own process or a descendant.
// The messaging library decides by that whether the peer may have the service's pipe, the daemon
// under which name the peer may register. Functions for any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace Wire {

// The parent's pid in the contents of a file /proc/PID/stat; nothing when they are malformed.
std::optional<pid_t> ParentOf(std::string_view stat);

// The pid of the parent of a process; nothing when there is no such process.
std::optional<pid_t> ReadParent(pid_t pid);

// The number of ancestors that IsSameOrDescendant looks at.
inline constexpr int GENERATIONS_MAX = 64;

// True when `pid` is `ancestor`, or descends from `ancestor` over at most GENERATIONS_MAX
// generations whose processes all still exist: the kernel gives a process whose parent has ended
// another parent. False when one of the pids is not positive.
bool IsSameOrDescendant(pid_t pid, pid_t ancestor);

}  // namespace Wire
