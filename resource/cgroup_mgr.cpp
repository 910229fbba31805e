#include "resource/cgroup_mgr.h"

#include <dirent.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "main/common/line_reader.h"
#include "main/common/log.h"
#include "main/common/numbers.h"
#include "resource/cgroup_paths.h"
#include "resource/cpu_num.h"
#include "resource/host_resource_file.h"
#include "resource/task_file.h"

namespace ProcMgr {
namespace {

constexpr const char* CPU_QUOTA = "/cpu.cfs_quota_us";
constexpr const char* CPU_PERIOD = "/cpu.cfs_period_us";
constexpr const char* MEMORY_SUFFIX = "_MEMORY";
constexpr int32_t NO_QUOTA = -1;
constexpr int32_t QUOTA_MIN = 1000;  // microseconds
constexpr int64_t PERCENT = 100;

bool FitsInt32(int64_t value) {
    return value >= std::numeric_limits<int32_t>::min() &&
           value <= std::numeric_limits<int32_t>::max();
}

std::string NameOf(const CgroupPolicyInfo& policy) {
    return {policy.groupName, strnlen(policy.groupName, sizeof(policy.groupName))};
}

// The function for each policy type.
struct PolicyRow {
    uint8_t type;
    uint32_t (CgroupMgr::*update)(const CgroupPolicyInfo& policy);
};
constexpr std::array POLICIES = {PolicyRow{0, &CgroupMgr::UpdateCpuSet}};

}  // namespace

CgroupMgr& CgroupMgr::GetInstance() {
    static CgroupMgr instance;
    return instance;
}

uint32_t CgroupMgr::UpdateCgroup(const CgroupPolicyInfo& policy) {
    const std::string name = NameOf(policy);
    ProcMgrSysLog(LOG_INFO,
                  "PROCMGR: CgroupMgr UpdateCgroup begin, groupName=%s, type=%d, isEnable=%d, "
                  "isCfgOk_=%d",
                  name.c_str(), policy.type, policy.isEnable, isCfgOk_.load());
    if (!isCfgOk_) {
        return CGROUP_FAILED;
    }
    if (!HasSet(name)) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr UpdateCgroup name=%s policy not found",
                      name.c_str());
        return CGROUP_FAILED;
    }
    for (const PolicyRow& row : POLICIES) {
        if (row.type == policy.type) {
            const uint32_t ret = (this->*row.update)(policy);
            ProcMgrSysLog(LOG_INFO, "PROCMGR: CgroupMgr UpdateCgroup finish, ret=%d",
                          static_cast<int>(ret));
            return ret;
        }
    }
    ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr UpdateCgroup name=%s policy type=%u invalid",
                  name.c_str(), static_cast<unsigned>(policy.type));
    return CGROUP_FAILED;
}

bool CgroupMgr::HasSet(const std::string& name) const {
    const LockGuard lock(setsMutex_);
    return cgroupSets_.contains(name);
}

uint32_t CgroupMgr::UpdateCpuSet(const CgroupPolicyInfo& policy) {
    CgroupSet set;
    {
        const LockGuard lock(setsMutex_);
        set = cgroupSets_[NameOf(policy)];
    }
    uint32_t ret = CGROUP_OK;
    for (const auto& [group, percentage] : set) {
        const int32_t quota = policy.isEnable == 1 ? ComputeQuota(group, percentage) : NO_QUOTA;
        const std::string path = CGROUP_CPU_ROOT + group + CPU_QUOTA;
        if (!WriteToCgroup(path, quota)) {
            ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr UpdateCpuSet write file=%s fail",
                          path.c_str());
            ret = CGROUP_FAILED;
        }
    }
    return ret;
}

// The quota in microseconds: the percentage of the group's period, times the number of hardware
// threads. QUOTA_MIN when that is less, or when a number does not fit into 32 bits.
int32_t CgroupMgr::ComputeQuota(const std::string& group, int32_t percentage) {
    const std::string path = CGROUP_CPU_ROOT + group + CPU_PERIOD;
    LineReader file(path);
    if (!file.IsOpen()) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr open %s fail", path.c_str());
    }
    const auto period = ParseLeadingNumber<int32_t>(file.Next().value_or("")).value_or(0);
    const int64_t share = int64_t{period} * percentage;
    if (!FitsInt32(share)) {
        return QUOTA_MIN;
    }
    const int64_t quota = static_cast<int64_t>(CPU_NUM) * (share / PERCENT);
    return FitsInt32(quota) && quota > QUOTA_MIN ? static_cast<int32_t>(quota) : QUOTA_MIN;
}

void CgroupMgr::EnableDefaultCpuSet() {
    if (!hostCpuSwitch_) {
        ProcMgrSysLog(LOG_INFO, "PROCMGR: CgroupMgr EnableDefaultCpuSet hostCpuSwitch_=%d",
                      hostCpuSwitch_.load());
        return;
    }
    CgroupPolicyInfo policy;
    const int length =
        std::snprintf(policy.groupName, sizeof(policy.groupName), "%s", HOST_CPU_SET);
    // A name that is too long for groupName is refused, because the cut name could be the name of
    // another set.
    if (length < 0 || static_cast<size_t>(length) >= sizeof(policy.groupName)) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr EnableDefaultCpuSet copy name fail, errno=%d",
                      errno);
        return;
    }
    policy.isEnable = 1;
    ProcMgrSysLog(LOG_INFO, "PROCMGR: CgroupMgr EnableDefaultCgroupCpu");
    UpdateCpuSet(policy);
}

bool CgroupMgr::HasDefaultCpuSet() const {
    return hostCpuSwitch_ && HasSet(HOST_CPU_SET);
}

void CgroupMgr::DisableCgroupCpu() const {
    if (!isCfgOk_) {
        return;
    }
    DIR* directory = opendir(CGROUP_CPU_ROOT);
    if (directory == nullptr) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr open dir=%s fail", CGROUP_CPU_ROOT);
        return;
    }
    ProcMgrSysLog(LOG_INFO, "PROCMGR: CgroupMgr DisableCgroupCpu");
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (entry->d_type == DT_DIR && name != "." && name != "..") {
            WriteToCgroup(CGROUP_CPU_ROOT + name + CPU_QUOTA, NO_QUOTA);
        }
    }
    if (closedir(directory) != 0) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr close dir=%s fail", CGROUP_CPU_ROOT);
    }
}

bool CgroupMgr::WriteToCgroup(const std::string& path, int32_t value) {
    if (access(path.c_str(), W_OK) != 0) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr WriteToCgroup, access %s fail, errno=%d",
                      path.c_str(), errno);
        return false;
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "we"), std::fclose);
    if (file == nullptr) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CgroupMgr WriteToCgroup, open %s fail", path.c_str());
        return false;
    }
    // The flush reports whether the kernel has accepted the value.
    return std::fprintf(file.get(), "%" PRId32, value) > 0 && std::fflush(file.get()) == 0;
}

bool CgroupMgr::IsUsableGroup(const std::string& group) {
    return !group.empty() && group.find("..") == std::string::npos;
}

std::vector<std::string> CgroupMgr::GetTaskPaths(const CgroupTaskInfo& task) const {
    std::vector<std::string> paths;
    if (IsUsableGroup(task.cpusetName)) {
        paths.push_back(CGROUP_CPUSET_ROOT + task.cpusetName + CGROUP_TASKS);
    }
    if (IsUsableGroup(task.cgroupName)) {
        paths.push_back(CGROUP_CPU_ROOT + task.cgroupName + CGROUP_TASKS);
    }
    for (const auto& [controller, group] : task.cgroupPaths) {
        if (IsUsableGroup(group)) {
            std::string path = CGROUP_ROOT + controller;
            path += "/" + group + CGROUP_TASKS;
            paths.push_back(std::move(path));
        }
    }
    if (blkIoSwitch_ && IsUsableGroup(task.blkioName)) {
        paths.push_back(CGROUP_BLKIO_ROOT + task.blkioName + CGROUP_TASKS);
        if (bufferIoSwitch_) {
            paths.push_back(CGROUP_MEMORY_ROOT + task.blkioName + MEMORY_SUFFIX + CGROUP_TASKS);
        }
    }
    return paths;
}

bool CgroupMgr::AddToCgroups(const CgroupTaskInfo& task, std::string& error) const {
    return AppendTidToAll(GetTaskPaths(task), task.tid, error);
}

}  // namespace ProcMgr
