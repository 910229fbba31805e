// The paths of the sockets at which the daemon's platform libraries listen. Used by platform/host/,
// which makes the sockets, and by agent/, which connects to them. Pure functions for any thread.
#pragma once

#include <string>
#include <string_view>

namespace Wire {

// The directories of the messaging library, each without a slash at its end.
inline constexpr const char* MESSAGING_DIRECTORY = "/run/muxa";
inline constexpr const char* PIPE_DIRECTORY = "/run/muxa/pipe";
inline constexpr const char* SERVER_DIRECTORY = "/run/muxa/server";

inline constexpr const char* HEARTBEAT_SOCKET = "/run/heartbeat.sock";

// The paths of a service's pipe and of a server. Characters other than letters, digits, '.', '_'
// and '-' are written as %XX. Empty for a name that cannot be a file name. The path may be longer
// than a socket address can hold.
std::string PipePath(std::string_view service);
std::string ServerPath(std::string_view server);

}  // namespace Wire
