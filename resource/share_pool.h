// The share-pool memory groups of the accelerator: which groups the files of the platform
// configure, which applications belong to them, and which processes have joined. The main thread
// loads the table; the launcher and the upload registration let processes join.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "main/common/serial_worker.h"
#include "platform/manifest.h"

namespace ProcMgr {

inline constexpr const char* SHARE_POOL_DIRECTORY = "/etc/sharepool";

// The groups that one process is to join.
struct SharePoolPlan {
    struct Group {
        std::string name;
        std::string access;  // "read" or "read-write"
    };
    std::vector<Group> groups;
    bool isPreconfigured = false;  // a configured group lists the application as a member

    // The names of the groups with "," between them.
    std::string Names() const;
};

class SharePool {
public:
    // `device` is the worker that calls the device library. It and this object must live until the
    // jobs that this object has given to it are done.
    explicit SharePool(SerialWorker& device) : device_(device) {}

    // Reads the YAML files of the directory in the order of their names and has the device worker
    // create each group in them; waits for that for a second at most. Skips, with a log line each,
    // a file that others than root may write or that cannot be parsed, and a group that is not
    // well-formed. Called once, before the first launch.
    void Load(const std::string& directory);

    // The configured groups that list the application as a member, and the groups of its manifest,
    // pairs of name and access. When both name a group, the configured access is used. Any thread.
    SharePoolPlan MakePlan(
        const std::string& appName,
        const std::vector<std::pair<std::string, std::string>>& manifestGroups) const;

    // Has the device worker add a process to the groups of its plan that it has not joined and is
    // not being added to. A failure is logged, and the group may be joined later. Any thread, also
    // with the lock of a container of records held.
    void Join(const std::string& appName, int32_t pid, const SharePoolPlan& plan)
        PROCMGR_EXCLUDES(mutex_);

    // Waits until the device worker has done every job that it has been given, but not beyond
    // `end`. The calling thread holds no lock.
    void WaitForJoins(SteadyTime end);

    // The configured groups that the process has joined. Any thread.
    std::vector<std::string> GetGroupsOf(int32_t pid) PROCMGR_EXCLUDES(mutex_);

    // Removes a process that has ended: a later process with the same pid has joined nothing. Any
    // thread.
    void Forget(int32_t pid) PROCMGR_EXCLUDES(mutex_);

private:
    struct Group {
        uint64_t size = 0;                           // bytes
        std::map<std::string, std::string> members;  // access by application
    };

    void LoadFile(const std::string& path);
    void LoadGroup(const KvsTypeYaml& node, const std::string& path);
    // Jobs of the device worker.
    void CreateGroups() const;
    void Add(const std::string& appName, int32_t pid, const SharePoolPlan::Group& group)
        PROCMGR_EXCLUDES(mutex_);

    // Whether the process is still to be added to the group.
    bool IsWanted(int32_t pid, const std::string& group) PROCMGR_EXCLUDES(mutex_);
    void Leave(int32_t pid, const std::string& group) PROCMGR_EXCLUDES(mutex_);

    SerialWorker& device_;
    std::map<std::string, Group> groups_;  // by name; constant after Load
    Mutex mutex_;
    // By pid and group: true when the device has added the process, false until then.
    std::map<int32_t, std::map<std::string, bool>> joined_ PROCMGR_GUARDED_BY(mutex_);
};

}  // namespace ProcMgr
