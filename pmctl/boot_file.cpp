#include "pmctl/boot_file.h"

#include <algorithm>
#include <utility>

#include "app/app_spec.h"
#include "pmctl/check_manifest.h"
#include "pmctl/context.h"
#include "pmctl/people.h"

namespace ProcMgr::Pmctl {

BootFile LoadBootFile(const std::string& path, const Image& image, bool hasOwners) {
    PlatformHost::ManifestCheck check =
        PlatformHost::CheckManifests(path, BoardReader(image, hasOwners));
    // The daemon stops at the first error.
    const std::string error = check.errors.empty() ? check.load.error : check.errors.front().Text();
    if (!error.empty()) {
        throw CommandError(
            EXIT_NO, "the daemon would start nothing: " + Printable(error) + ": see pmctl check");
    }
    return {std::move(check.load.manifests), std::move(check.places)};
}

// By rising priority, then by name; those with match data are not selected at boot.
std::vector<size_t> PriorityOrder(const BootFile& file) {
    std::vector<size_t> order;
    for (size_t i = 0; i < file.manifests.size(); ++i) {
        const ApplicationManifest& manifest = file.manifests[i];
        if (manifest.GetManifestList() == ManifestList::APPLICATIONS &&
            manifest.GetStartupPriority() != App::AppSpec::NO_PRIORITY &&
            manifest.GetMatchData().empty()) {
            order.push_back(i);
        }
    }
    const auto keyOf = [&file](size_t i) {
        return std::pair(file.manifests[i].GetStartupPriority(), file.manifests[i].GetAppName());
    };
    std::sort(order.begin(), order.end(),
              [&keyOf](size_t one, size_t other) { return keyOf(one) < keyOf(other); });
    return order;
}

}  // namespace ProcMgr::Pmctl
