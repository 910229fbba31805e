// Loads one manifest file with all files that it includes. ParseAndDepend::ParseYaml calls
// LoadManifests(); a checker calls CheckManifests(), which does not stop at the first error. A
// checker or a fuzz target can pass a reader of its own instead of reading files.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/manifest_problem.h"
#include "platform/host/yaml_file.h"
#include "platform/manifest.h"

namespace PlatformHost {

struct ManifestLoad {
    std::vector<ProcMgr::ApplicationManifest> manifests;  // in file order, includes first
    std::set<std::string> files;                          // every file read, by its real path
    std::vector<ManifestProblem> warnings;                // one for each ignored key
    std::string error;  // empty on success, then `manifests` is complete

    // The primary groups of the users whose entries have no group of their own.
    std::map<uint32_t, uint32_t> groupOfUser;
};

// Returns the text of the file at `path`.
using ManifestReader = std::function<YamlFile(const std::string& path)>;

// Loads the file at `path`. Any thread. Never throws: an exception becomes the error of the result.
ManifestLoad LoadManifests(const std::string& path, const ManifestReader& reader);

// Where an entry and its keys stand in the file of the entry.
struct ManifestEntryPlace {
    uint32_t line = 0;
    std::map<std::string, uint32_t, std::less<>> lineOfKey;
};

struct ManifestCheck {
    // As of LoadManifests(), with two differences: an entry with errors is among the manifests when
    // it has a name, and the keys with errors have their defaults; `error` is empty unless the
    // check itself could not go on.
    ManifestLoad load;
    std::vector<ManifestEntryPlace> places;  // of load.manifests, in the same order
    std::vector<ManifestProblem> errors;
};

// The check stops after this number of errors.
constexpr size_t MAX_MANIFEST_ERRORS = 1000;

// As LoadManifests(), but goes on after an error: with the next key, entry or include. The first of
// the errors is the one that LoadManifests() reports.
ManifestCheck CheckManifests(const std::string& path, const ManifestReader& reader);

// The keys at the top of a manifest file.
std::span<const std::string_view> ManifestTopKeys();

// Whether the user database still has the primary groups that the load has found. Any thread.
bool HasSameGroups(const ManifestLoad& load);

}  // namespace PlatformHost
