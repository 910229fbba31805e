// The applications that are known: the entries of start-up configuration files, loaded from the
// base-service file at boot and on request of owners. Thread-safe; its lock is taken under that of
// the general applications, and nothing is locked while a file is read.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/manifest.h"

namespace ProcMgr {

class StartupConfig {
public:
    // Results of loading.
    static constexpr uint32_t OK = 0;
    static constexpr uint32_t FILE_UNUSABLE = 0xF10405;

    using MatchData = std::map<std::string, std::string>;

    // Adds the applications of the file at `path`: those for which `matchData` has every pair that
    // they ask for. A name that is known already takes over what the file says. A file that is
    // not root's alone to write, or does not parse, changes nothing.
    uint32_t LoadStartCfgInfo(const std::string& path, const MatchData& matchData = {});

    // The same, and what this file gave before is forgotten.
    uint32_t ReLoadStartCfgInfo(const std::string& path, const MatchData& matchData = {});

    // Nothing when no application of that name is known.
    std::optional<ApplicationManifest> Find(const std::string& name) const;

    // The priority applications, by rising priority, then name.
    std::vector<ApplicationManifest> GetPriorityApps() const;

private:
    uint32_t Load(const std::string& path, const MatchData& matchData, bool isReload);

    struct Entry {
        std::string file;  // the one that a request named, not one that it includes
        ApplicationManifest manifest;
    };

    mutable std::mutex mutex_;
    std::map<std::string, Entry> entries_;  // guarded by mutex_
};

}  // namespace ProcMgr
