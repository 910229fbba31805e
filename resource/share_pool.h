// The share-pool memory groups of the accelerator: which there are, who belongs to them, and who
// has joined. The table is read once at start-up and constant afterwards; joining may be done from
// any thread.
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
    bool isPreconfigured = false;  // a configured group names the process

    // The groups' names with "," between them.
    std::string Names() const;
};

class SharePool {
public:
    // `device` is the worker that calls the device library; it must outlive this object.
    explicit SharePool(SerialWorker& device) : device_(device) {}

    // Reads the YAML files of the directory in the order of their names and creates each group that
    // they configure. A file that is not root's alone to write, or that cannot be parsed, is left
    // out, and so is a group that is not well-formed; each with a log line. Before the first
    // launch.
    void Load(const std::string& directory);

    // The groups of the manifest, and those that name the application.
    SharePoolPlan MakePlan(
        const std::string& appName,
        const std::vector<std::pair<std::string, std::string>>& manifestGroups) const;

    // Has the device worker add a process to the groups of its plan, as far as it is not in them or
    // being added to them. A failure is logged. Any lock may be held.
    void Join(const std::string& appName, int32_t pid, const SharePoolPlan& plan);

    // Waits until the device worker has done every job that it has been given, or for `end`.
    void WaitForJoins(SteadyTime end);

    // The configured groups that the process has joined.
    std::vector<std::string> GetGroupsOf(int32_t pid);

    // Forgets a process that is gone.
    void Forget(int32_t pid);

private:
    struct Group {
        uint64_t size = 0;                           // bytes
        std::map<std::string, std::string> members;  // access by application
    };

    void LoadFile(const std::string& path);
    void CreateGroups() const;
    void Add(const std::string& appName, int32_t pid, const SharePoolPlan::Group& group);
    bool IsWanted(int32_t pid, const std::string& group);
    void Leave(int32_t pid, const std::string& group);
    void LoadGroup(const KvsTypeYaml& node, const std::string& path);

    SerialWorker& device_;
    std::map<std::string, Group> groups_;  // constant once it is loaded
    Mutex mutex_;
    // By pid and group: whether the device has added the process; guarded by mutex_.
    std::map<int32_t, std::map<std::string, bool>> joined_;
};

}  // namespace ProcMgr
