// Names, paths and limits that several rooms share. Nothing here changes at run time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/names.h"

namespace ProcMgr {

inline constexpr const char* PROCMGR_NAME = "PROCMGR";
inline constexpr const char* BOOT_TRACE_TAG = "PM";

// Environment of the daemon and of what it starts.
inline constexpr const char* ENV_PROC_NAME = "PROC_NAME";
inline constexpr const char* ENV_PROC_PLANE = "PROC_PLANE";

// Processes that the daemon treats in a way of their own.
inline constexpr const char* PROC_VINTOR = "vintor";
inline constexpr const char* PROC_ZORNMGR = "zornmgr";

// Restart policies. Any other word means: never.
inline constexpr const char* RESTART_ON_FAILURE = "on-failure";
inline constexpr const char* RESTART_ON_FOREVER = "on-forever";
inline constexpr const char* RESTART_ON_UNTIL_SUCCEED = "on-until-succeed";
inline constexpr const char* RESTART_NO = "no";

inline constexpr const char* SETTINGS_FILE = "/etc/vela/base-plat/process-manager/procmgr_cfg.yaml";
inline constexpr const char* HASH_FILE = "/etc/vela/base-plat/process-manager/bin_hash.cfg";
inline constexpr const char* PROC_DIR = "/proc/";
inline constexpr const char* PASSWD_FILE = "/etc/passwd";
inline constexpr const char* DEFAULT_OWNER = "1000:1000";
inline constexpr const char* COMMON_ENV_FILE = "/etc/korin_common_env.conf";
inline constexpr const char* HOST_RESOURCE_FILE = "/usr/bin/vela/env.cfg";
inline constexpr const char* KERNEL_COMMAND_LINE = "/proc/cmdline";
inline constexpr const char* CGROUP_ROOT = "/sys/fs/cgroup/";
inline constexpr const char* CGROUP_CPU_ROOT = "/sys/fs/cgroup/cpu/";
inline constexpr const char* CGROUP_MEMORY_ROOT = "/sys/fs/cgroup/memory/";
inline constexpr const char* CGROUP_CPUSET_ROOT = "/sys/fs/cgroup/cpuset/";
inline constexpr const char* CGROUP_BLKIO_ROOT = "/sys/fs/cgroup/blkio/";
inline constexpr const char* SHARE_POOL_DIRECTORY = "/etc/sharepool";
inline constexpr const char* QUICK_START_MARKER = "/sys/fs/cgroup/notify_pm_done";

// The longest path that is taken from outside.
inline constexpr size_t PATH_LENGTH_MAX = 4096;

// Boot-trace points.
inline constexpr uint32_t POINT_MAIN = 0;
inline constexpr uint32_t POINT_PRIORITY_APPS = 0x10000001;
inline constexpr uint32_t POINT_CONTINUE_INIT = 0x20000001;
inline constexpr uint32_t POINT_ZORNMGR_READY = 0x30000001;
inline constexpr uint32_t POINT_VINTOR_READY = 0x40000001;
inline constexpr uint32_t POINT_ALL_STARTED = 0xFFFFFFFF;

}  // namespace ProcMgr
