// The check of a base-service manifest or a start-up configuration, with all files that it
// includes.
#pragma once

#include <set>
#include <string>

#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

// Reads manifests of the board: looks for included files in the image, and refuses what the daemon
// would refuse.
PlatformHost::ManifestReader BoardReader(const Image& image, bool hasOwners);

// The path without links, the path itself where there is none: two paths of one file are equal so.
std::string RealPathOf(const std::string& path);

// Checks the file and adds its findings. Returns the real paths of all files that were read.
std::set<std::string> CheckManifest(const std::string& path, CheckContext& context);

}  // namespace ProcMgr::Pmctl
