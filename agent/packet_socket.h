// Connections to the sockets of the daemon, and the deadlines of waits for it. Used by
// OwnerChannel, HeartbeatSender and RegisterUpload. Functions for any thread; none waits.
#pragma once

#include <chrono>
#include <string>

#include "wire/unique_fd.h"

namespace ProcMgr::Agent {

using Wire::UniqueFd;

// The pause between two attempts to connect.
inline constexpr std::chrono::milliseconds RETRY_PAUSE{20};
// The longest wait: the sum of the clock and a longer time-out could overflow.
inline constexpr std::chrono::milliseconds LONGEST_WAIT = std::chrono::hours(24 * 365);

// The end of a wait that begins now. A negative `timeout` counts as 0, a longer one than
// LONGEST_WAIT as LONGEST_WAIT.
std::chrono::steady_clock::time_point DeadlineIn(std::chrono::milliseconds timeout);

// False when the path is empty or longer than a socket address can hold.
bool IsSocketPath(const std::string& path);

// Connects a non-blocking SEQPACKET socket. The result is not valid when IsSocketPath(path) is
// false, no process listens at the path, or no descriptor is left.
UniqueFd ConnectSocket(const std::string& path);

}  // namespace ProcMgr::Agent
