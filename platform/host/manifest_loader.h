// Loads one manifest file with all files that it includes. ParseAndDepend::ParseYaml calls it; a
// checker or a fuzz target can pass a reader of its own instead of reading files.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/host/yaml_file.h"
#include "platform/manifest.h"

namespace PlatformHost {

struct ManifestLoad {
    std::vector<ProcMgr::ApplicationManifest> manifests;  // in file order, includes first
    std::set<std::string> files;                          // every file read, by its real path
    std::vector<std::string> warnings;                    // one for each ignored key
    std::string error;  // empty on success, then `manifests` is complete

    // The primary groups of the users whose entries have no group of their own.
    std::map<uint32_t, uint32_t> groupOfUser;
};

// Returns the text of the file at `path`.
using ManifestReader = std::function<YamlFile(const std::string& path)>;

// Loads the file at `path`. Any thread. Never throws: an exception becomes the error of the result.
ManifestLoad LoadManifests(const std::string& path, const ManifestReader& reader);

// Whether the user database still has the primary groups that the load has found. Any thread.
bool HasSameGroups(const ManifestLoad& load);

}  // namespace PlatformHost
