// Loads one manifest file with everything that it includes. ParseAndDepend::ParseYaml is a thin
// layer over it; a checker or a fuzz target calls it with a reader of its own.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "platform/host/yaml_tree.h"
#include "platform/manifest.h"

namespace ProcMgr {

struct ManifestLoad {
    std::vector<ApplicationManifest> manifests;  // in file order, includes first
    std::set<std::string> files;                 // every file read, by its real path
    std::vector<std::string> warnings;           // one for each thing that was ignored
    std::string error;                           // empty on success, then `manifests` is complete
};

// How the text of a file is got; ReadYamlFile with FileTrust::OWNER_ONLY for files.
using ManifestReader = std::function<YamlFile(const std::string& path)>;

// Never throws; running out of memory is an error like any other.
ManifestLoad LoadManifests(const std::string& path, const ManifestReader& reader);

}  // namespace ProcMgr
