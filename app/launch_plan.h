// Everything that a child needs between fork and execv. ProcessLauncher computes the plan in the
// parent, before the fork; the child only reads it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/user_groups.h"
#include "platform/access_manager.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/share_pool.h"

namespace ProcMgr::App {

class BaseAppInfo;
class GeneralAppInfo;

enum class AppKind { GENERAL, BASE };

struct LaunchPlan {
    AppKind kind = AppKind::BASE;
    std::string appName;
    std::string execPath;
    std::vector<std::string> arguments;
    uint32_t uid = 0;
    uint32_t gid = 0;
    UserGroups userGroups;

    bool raiseRealTimeLimit = false;
    // A policy of the operating system; none: the child keeps the daemon's.
    std::optional<int> schedPolicy;
    int rtPriority = -1;
    int nice = 0;

    // The tasks files of the application's control groups.
    std::vector<std::string> taskFiles;
    // None when the application has no cores of its own and the ordinary cores are not known.
    std::optional<CoreMask> coreMask;
    // The application may use every core until it is bound to its own.
    bool isDelayed = false;

    SharePoolPlan sharePool;
    std::string sharePoolNames;
    // The variables of the manifest, in the order of their keys.
    std::vector<std::pair<std::string, std::string>> envs;
    std::string home;
    // An empty text here means that the variable is not set.
    std::string preload;
    std::string startupEntryPath;    // base services
    std::string ownerName;           // general applications
    std::string plane;               // general applications
    bool heartBeatSwitch = false;    // general applications
    bool afterAbnormalExit = false;  // base services

    AppConfig accessConfig;
    // The descriptor to which the child writes its failures; -1: none are written.
    int errorFd = -1;
};

// Makes the plan of a record, except userGroups, sharePool and sharePoolNames, which
// ProcessLauncher fills in. Any thread; reads no file.
LaunchPlan MakeLaunchPlan(const GeneralAppInfo& app, const CgroupMgr& cgroups,
                          const CoreAffinityMgr& affinity);
LaunchPlan MakeLaunchPlan(const BaseAppInfo& app, const CgroupMgr& cgroups,
                          const CoreAffinityMgr& affinity);

}  // namespace ProcMgr::App
