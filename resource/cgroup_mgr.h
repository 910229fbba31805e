// The daemon's single owner of the control-group file system, first version: the CPU limits of the
// host resource file, and the way of every process and thread into its groups. The host resource
// file is read once, before applications are launched; afterwards every operation may be called
// from any thread.
#pragma once

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

struct CgroupPolicyInfo {
    char groupName[64] = {};  // of a set in the table, with its zero byte
    uint8_t type = 0;         // 0: CPU quotas, the only type there is
    uint8_t isEnable = 0;     // 1: set the set's limits, 0: lift them
};

// Where one process or thread belongs. An empty group is none; one with ".." in it is left out.
struct CgroupTaskInfo {
    std::string name;  // of the process, for messages
    int32_t tid = 0;
    std::string cgroupName;  // under the cpu controller
    std::string cpusetName;
    std::string blkioName;                           // with its memory group for buffered writes
    std::map<std::string, std::string> cgroupPaths;  // further controllers
};

class CgroupMgr {
public:
    // The daemon's one instance, created on first use.
    static CgroupMgr& GetInstance();

    // Reads the host resource file. Once, before any application is launched.
    void ReadCfg();

    // Applies or lifts the limits of a set. CGROUP_OK, or CGROUP_FAILED with a log line.
    uint32_t UpdateCgroup(const CgroupPolicyInfo& policy);
    // The same for CPU quotas, whatever is wrong with the file. A set that is not in the table is
    // made, an empty one: UpdateCgroup knows it from then on.
    uint32_t UpdateCpuSet(const CgroupPolicyInfo& policy);
    // Sets the limits of the host's own set, unless the host resource file switches them off.
    void EnableDefaultCpuSet();
    // Lifts the CPU limits of every group directly under the cpu controller.
    void DisableCgroupCpu() const;

    // Puts a process or thread into its groups. False when some do not exist: their paths are
    // appended to `error`, the others are joined all the same.
    bool AddToCgroups(const CgroupTaskInfo& task, std::string& error) const;
    // Whether a group of this name is one that AddToCgroups joins.
    static bool IsUsableGroup(const std::string& group);
    // The tasks files that AddToCgroups writes, in their order; `task.tid` is not looked at.
    std::vector<std::string> GetTaskPaths(const CgroupTaskInfo& task) const;

private:
    using CgroupSet = std::map<std::string, int32_t>;  // percentage by group

    void ReadLines();
    void ReadLine(std::string_view line);
    void HandleKey(const std::string& key, std::string_view value);
    bool ParseSet(const std::string& set, std::string_view value);
    bool StoreEntry(const std::string& set, const std::string& group, const std::string& value);
    void DetectBlkIo();
    void LogSummary() const;
    bool HasSet(const std::string& name) const;
    static int32_t ComputeQuota(const std::string& group, int32_t percentage);
    static bool WriteToCgroup(const std::string& path, int32_t value);

    mutable Mutex setsMutex_;                      // no file is written under it
    std::map<std::string, CgroupSet> cgroupSets_;  // guarded by setsMutex_
    bool hostCpuSwitch_ = true;
    bool isCfgOk_ = true;
    bool blkIoSwitch_ = false;     // there is a blkio controller
    bool bufferIoSwitch_ = false;  // it also throttles buffered writes
};

}  // namespace ProcMgr
