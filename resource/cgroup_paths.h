// The control groups that the platform creates before the daemon starts, as paths and as names
// under a controller. Everything in resource/ that reads or joins a control group takes its path
// from here.
#pragma once

namespace ProcMgr {

inline constexpr const char* CGROUP_ROOT = "/sys/fs/cgroup/";
inline constexpr const char* CGROUP_CPU_ROOT = "/sys/fs/cgroup/cpu/";
inline constexpr const char* CGROUP_MEMORY_ROOT = "/sys/fs/cgroup/memory/";
inline constexpr const char* CGROUP_CPUSET_ROOT = "/sys/fs/cgroup/cpuset/";
inline constexpr const char* CGROUP_BLKIO_ROOT = "/sys/fs/cgroup/blkio/";

// Files of a group: the ids of its threads, and the cores of a cpuset.
inline constexpr const char* CGROUP_TASKS = "/tasks";
inline constexpr const char* CPUSET_CPUS = "/cpuset.cpus";

// The cpuset and the cpu group of the daemon and of every process that configures none.
inline constexpr const char* DEFAULT_CPUSET = "CtrlCPU";
inline constexpr const char* DEFAULT_CPU_GROUP = "OTHER";

// The cores of ordinary software: those of DEFAULT_CPUSET.
inline constexpr const char* CTRL_CPUSET_CPUS = "/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus";
// The cores for accelerator work, and the threads that run on them.
inline constexpr const char* AI_CPUSET_CPUS = "/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus";
inline constexpr const char* AI_CPUSET_TASKS = "/sys/fs/cgroup/cpuset/AICPU/tasks";

}  // namespace ProcMgr
