// The primary group of a user, for entries of manifests that have no group of their own.
#pragma once

#include <cstdint>
#include <optional>

namespace PlatformHost {

// Returns the primary group of a user, 0 when the user database has no such user, and nothing when
// the database could not be read: the user may be in it, and group 0 would give privileges away.
std::optional<uint32_t> PrimaryGroup(uint32_t uid);

}  // namespace PlatformHost
