// The base-service manifest of a boot with all files that it includes, as the daemon reads it.
#pragma once

#include <string>
#include <vector>

#include "platform/host/manifest_loader.h"
#include "platform/manifest.h"
#include "pmctl/image.h"

namespace ProcMgr::Pmctl {

struct BootFile {
    std::vector<ApplicationManifest> manifests;            // in file order, includes first
    std::vector<PlatformHost::ManifestEntryPlace> places;  // of the manifests, in the same order
};

// `hasOwners`: a file that others may write is refused. Throws CommandError with EXIT_NO when the
// daemon would not use the file.
BootFile LoadBootFile(const std::string& path, const Image& image, bool hasOwners);

// The numbers of the applications that a boot starts before the services, in that order.
std::vector<size_t> PriorityOrder(const BootFile& file);

}  // namespace ProcMgr::Pmctl
