// CgroupMgr, the daemon's single owner of the control groups (first version): it reads the CPU
// limits of the host resource file, sets and lifts them, and puts processes and threads into their
// groups. The start-up thread has the host resource file read; afterwards the launcher, the
// periodic affinity check and the wake-up recovery call it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "main/common/mutex.h"

namespace ProcMgr {

inline constexpr const char* HOST_RESOURCE_FILE = "/usr/bin/vela/env.cfg";

inline constexpr uint32_t CGROUP_OK = 0;
inline constexpr uint32_t CGROUP_FAILED = 15794959;

struct CgroupSetEntry;

// Asks for the limits of one cgroup set, a list of groups with percentages in the host resource
// file, to be set or lifted.
struct CgroupPolicyInfo {
    char groupName[64] = {};  // name of the set, zero-terminated
    uint8_t type = 0;         // 0: CPU quotas, the only type
    uint8_t isEnable = 0;     // 1: set the limits, 0: lift them
};

// The groups of one process or thread. An empty group means that the controller's group is not
// changed; a group with ".." in it is skipped.
struct CgroupTaskInfo {
    std::string name;  // name of the process, for messages
    int32_t tid = 0;
    std::string cgroupName;  // group of the cpu controller
    std::string cpusetName;
    // Group of the blkio controller. Its name with "_MEMORY" after it is the memory group that the
    // kernel needs to throttle buffered writes.
    std::string blkioName;
    std::map<std::string, std::string> cgroupPaths;  // further controllers with their groups
};

// Callable from any thread. All operations but ReadCfg may be called with a lock held: the only
// files that they open are those of the control groups.
class CgroupMgr {
public:
    // The daemon's one instance, created on first use. Only ProcessManager calls this; the other
    // classes get a reference.
    static CgroupMgr& GetInstance();

    // Reads the host resource file. Called once, before the base services are launched.
    void ReadCfg() PROCMGR_EXCLUDES(setsMutex_);

    // Sets or lifts the limits of a set of the host resource file. Returns CGROUP_FAILED when the
    // host resource file was bad (not logged), or, with a log line, when the set or the type is
    // unknown or a limit could not be written. The daemon itself changes only the host's own set;
    // this is the entry for platform code that switches other sets.
    uint32_t UpdateCgroup(const CgroupPolicyInfo& policy) PROCMGR_EXCLUDES(setsMutex_);
    // As UpdateCgroup for CPU quotas, but also after a bad host resource file, with the sets that
    // had been read. An unknown set is added to the table as an empty set, and is known to
    // UpdateCgroup from then on.
    uint32_t UpdateCpuSet(const CgroupPolicyInfo& policy) PROCMGR_EXCLUDES(setsMutex_);
    // Sets the limits of the host's own set, unless the host resource file switches them off.
    void EnableDefaultCpuSet() PROCMGR_EXCLUDES(setsMutex_);
    // Whether EnableDefaultCpuSet() would set limits.
    bool HasDefaultCpuSet() const PROCMGR_EXCLUDES(setsMutex_);
    // Lifts the CPU limits of every group directly under the cpu controller; does nothing when the
    // host resource file was bad. No part of the daemon lifts all limits today; like UpdateCgroup
    // this is an entry for platform code.
    void DisableCgroupCpu() const;

    // Puts a process or thread into its groups. False when some groups do not exist: each of them
    // is named at the end of `error`, and the other groups are joined all the same.
    bool AddToCgroups(const CgroupTaskInfo& task, std::string& error) const;
    // Whether AddToCgroups joins a group of this name: not empty and without "..".
    static bool IsUsableGroup(const std::string& group);
    // The tasks files that AddToCgroups writes, in the order of writing. Ignores `task.tid`.
    std::vector<std::string> GetTaskPaths(const CgroupTaskInfo& task) const;

private:
    using CgroupSet = std::map<std::string, int32_t>;  // percentage by group

    void ReadLines();
    void ReadLine(std::string_view text);
    bool StoreEntry(const std::string& set, const CgroupSetEntry& entry)
        PROCMGR_EXCLUDES(setsMutex_);
    void DetectBlkIo();
    void LogSummary() const PROCMGR_EXCLUDES(setsMutex_);
    bool HasSet(const std::string& name) const PROCMGR_EXCLUDES(setsMutex_);
    static int32_t ComputeQuota(const std::string& group, int32_t percentage);
    static bool WriteToCgroup(const std::string& path, int32_t value);

    mutable Mutex setsMutex_;  // not held while a file is read or written
    std::map<std::string, CgroupSet> cgroupSets_ PROCMGR_GUARDED_BY(setsMutex_);
    // Changed by ReadCfg only; atomic because the check thread may launch a priority application
    // again while the start-up thread is in ReadCfg.
    std::atomic<bool> hostCpuSwitch_{true};
    std::atomic<bool> isCfgOk_{true};
    std::atomic<bool> blkIoSwitch_{false};     // the blkio controller exists
    std::atomic<bool> bufferIoSwitch_{false};  // the blkio controller throttles buffered writes too
};

}  // namespace ProcMgr
