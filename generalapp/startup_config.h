// The applications that are known: the entries of start-up configuration files, loaded from the
// base-service file at boot and on request of owners. Thread-safe; its lock is taken under that of
// the general applications, and nothing is locked while a file is read.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "main/common/mutex.h"
#include "platform/manifest.h"

namespace ProcMgr {

class StartupConfig {
public:
    // Results of loading.
    static constexpr uint32_t OK = 0;
    static constexpr uint32_t FILE_UNUSABLE = 0xF10405;

    using MatchData = std::map<std::string, std::string>;

    // Adds the applications of the file at `path`: those for which `matchData` has every pair that
    // they ask for. Where several files have a name, the one that was loaded last counts. A file
    // that is not root's alone to write, or does not parse, changes nothing.
    uint32_t LoadStartCfgInfo(const std::string& path, const MatchData& matchData = {});

    // The same, and what this file gave before is forgotten: other files' entries of those names
    // count again. The file is known by any spelling of its path.
    uint32_t ReLoadStartCfgInfo(const std::string& path, const MatchData& matchData = {});

    // Nothing when no application of that name is known.
    std::optional<ApplicationManifest> Find(const std::string& name) const;

    // Grows with each change of what Find() gives.
    uint64_t GetRevision() const { return revision_; }

    // The priority applications, of one file or of all, by rising priority, then name.
    std::vector<ApplicationManifest> GetPriorityApps(const std::string& path = {}) const;

private:
    // What one file gives.
    struct Source {
        std::string resolved;  // its path without links
        std::string spelled;   // its path as a request has it, without "." and ".."
        std::map<std::string, ApplicationManifest> apps;

        bool IsOf(const Source& other) const {
            return resolved == other.resolved || spelled == other.spelled;
        }
    };

    static Source MakeSource(const std::string& path);
    uint32_t Load(const std::string& path, const MatchData& matchData, bool isReload);

    mutable Mutex mutex_;
    std::vector<Source> sources_;  // in the order of their last loads; guarded by mutex_
    std::atomic<uint64_t> revision_{0};
};

}  // namespace ProcMgr
