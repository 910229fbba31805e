// Everything that a child needs between fork and execv, computed in the parent before the fork: the
// child then only walks a list of steps over it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/user_groups.h"
#include "platform/access_manager.h"
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
    std::optional<int> schedPolicy;  // the operating system's; none: leave it as it is
    int rtPriority = -1;
    int nice = 0;

    std::vector<std::string> taskFiles;  // of the control groups
    std::optional<CoreMask> coreMask;    // none: no cores are known
    bool isDelayed = false;  // it starts on every core, and on its own if it is bound meanwhile

    SharePoolPlan sharePool;
    std::string sharePoolNames;
    std::vector<std::pair<std::string, std::string>> envs;  // the manifest's, by key
    std::string home;
    // Empty: the variable is not set.
    std::string preload;
    std::string startupEntryPath;
    std::string ownerName;           // general applications
    std::string plane;               // general applications
    bool heartBeatSwitch = false;    // general applications
    bool afterAbnormalExit = false;  // base services

    AppConfig accessConfig;
    int errorFd = -1;  // where the child writes what failed; -1: nowhere
};

// All but the user's groups and the share-pool groups, which the launcher looks up.
LaunchPlan MakeLaunchPlan(const GeneralAppInfo& app);
LaunchPlan MakeLaunchPlan(const BaseAppInfo& app);

}  // namespace ProcMgr::App
