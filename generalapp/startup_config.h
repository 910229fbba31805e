// The configured applications: the entries of start-up configuration files. ProcessManager loads
// the base-service file at boot and other files on request of owners; GeneralApps looks
// applications up. Every function is thread-safe. The lock may be taken while the lock of the
// general applications is held; no lock is held while a file is read.
#pragma once

#include <atomic>
#include <cstddef>
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
    // The results of a load.
    static constexpr uint32_t OK = 0;
    static constexpr uint32_t FILE_UNUSABLE = 0xF10405;

    using MatchData = std::map<std::string, std::string>;

    // Adds the applications of the file at `path`, except those whose match pairs are not all in
    // `matchData`. When several files have an entry of the same name, the entry of the file that
    // was loaded last is used. FILE_UNUSABLE, with a log line and without any change, when the file
    // cannot be parsed or users other than root may write it. Not with a lock held.
    uint32_t LoadStartCfgInfo(const std::string& path, const MatchData& matchData = {});

    // As LoadStartCfgInfo(), but the entries that earlier loads of this file have added are removed
    // first; entries of other files with the same names are used again. Different spellings of a
    // path name the same file.
    uint32_t ReLoadStartCfgInfo(const std::string& path, const MatchData& matchData = {});

    // Nothing when no application of that name is configured.
    std::optional<ApplicationManifest> Find(const std::string& name) const;

    // The next applications after the name `last`, by name; `count` at most.
    std::vector<ApplicationManifest> GetAfter(const std::string& last, size_t count) const;

    // Grows with each change of the configuration.
    uint64_t GetRevision() const { return revision_; }

    // The priority applications of the file at `path`, or of all files when `path` is empty, sorted
    // by rising priority, then by name.
    std::vector<ApplicationManifest> GetPriorityApps(const std::string& path = {}) const;

private:
    // One configuration file and its applications by name.
    struct Source {
        std::string resolved;  // the path without symbolic links
        std::string spelled;   // the path of the request, without "." and ".."
        std::map<std::string, ApplicationManifest> apps;

        bool IsOf(const Source& other) const {
            return resolved == other.resolved || spelled == other.spelled;
        }
    };

    static Source MakeSource(const std::string& path);
    uint32_t Load(const std::string& path, const MatchData& matchData, bool isReload);

    mutable Mutex mutex_;
    std::vector<Source> sources_ PROCMGR_GUARDED_BY(mutex_);  // in the order of their last loads
    std::atomic<uint64_t> revision_{0};
};

}  // namespace ProcMgr
