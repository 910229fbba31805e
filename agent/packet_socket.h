// Sockets to the daemon's pipes and servers: connects them, receives packets from them and says
// until when to wait. Used by OwnerChannel and RegisterUpload.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "wire/unique_fd.h"

namespace ProcMgr::Agent {

using Wire::UniqueFd;

// Between two attempts to connect.
inline constexpr std::chrono::milliseconds RETRY_PAUSE{20};
// Keeps the sum of a time-out and the clock in range.
inline constexpr std::chrono::milliseconds LONGEST_WAIT = std::chrono::hours(24 * 365);

// `timeout` may be any; what is negative is over at once.
std::chrono::steady_clock::time_point DeadlineIn(std::chrono::milliseconds timeout);

// A socket that never blocks; not valid when nobody listens there or there is no descriptor left.
UniqueFd ConnectSocket(const std::string& path);

// The length of the packet received, more than the buffer's when it does not fit; nothing when none
// is there, 0 at the end of the connection.
std::optional<size_t> ReceivePacket(int fd, std::span<uint8_t> buffer);

}  // namespace ProcMgr::Agent
