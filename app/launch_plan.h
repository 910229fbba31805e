// Everything that a child needs between fork and execv. ProcessLauncher::Prepare() computes the
// plan in the parent, before the fork and without a lock; the child only reads it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/app_kind.h"
#include "app/child_environment.h"
#include "app/child_slots.h"
#include "app/user_groups.h"
#include "output/output_pipe.h"
#include "platform/access_manager.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/share_pool.h"

namespace ProcMgr::App {

class BaseAppInfo;
class GeneralAppInfo;

struct LaunchPlan {
    AppKind kind = AppKind::BASE;
    std::string appName;
    std::string execPath;
    std::vector<std::string> arguments;
    uint32_t uid = 0;
    uint32_t gid = 0;
    UserGroups userGroups;

    bool raiseRealTimeLimit = false;
    // The scheduling policy; without a value the child keeps the policy of the daemon.
    std::optional<int> schedPolicy;
    int rtPriority = -1;
    int nice = 0;

    // The tasks files of the application's control groups.
    std::vector<std::string> taskFiles;
    // Without a value when the manifest gives no cores and the list of cores for ordinary software
    // has not been read: the child is then not pinned.
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

    // What standard output and error are connected to.
    Output::OutputTarget output;

    // Made of the values above, when they are complete.
    ChildEnvironment environment;
    // The place of a child that shares the daemon's memory; without one the child is forked.
    ChildSlots::Lease slot;
};

// Makes the plan of a record, except userGroups, sharePool, sharePoolNames, output,
// environment and slot, which ProcessLauncher fills in. Any thread; reads no file.
LaunchPlan MakeLaunchPlan(const GeneralAppInfo& app, const CgroupMgr& cgroups,
                          const CoreAffinityMgr& affinity);
LaunchPlan MakeLaunchPlan(const BaseAppInfo& app, const CgroupMgr& cgroups,
                          const CoreAffinityMgr& affinity);

}  // namespace ProcMgr::App
