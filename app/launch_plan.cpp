#include "app/launch_plan.h"

#include "app/app_spec.h"
#include "app/base_app_info.h"
#include "app/general_app_info.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr::App {
namespace {

constexpr const char* ENV_PRELOAD = "LD_PRELOAD";
constexpr const char* SANITIZER_LIBRARY = "libasan.so";
constexpr const char* SANITIZER_PRELOAD = "libasan.so.4:libzorn.so.1";
constexpr const char* PLANE_DATA = "PLANE_DATA";
constexpr const char* PLANE_MANAGE = "PLANE_MANAGE";

// The value of LD_PRELOAD: a program built with the address sanitizer needs the sanitizer's library
// before the access manager's. Empty for any other program.
std::string PreloadOf(const std::map<std::string, std::string>& envs) {
    const auto entry = envs.find(ENV_PRELOAD);
    const bool isSanitized =
        entry != envs.end() && entry->second.find(SANITIZER_LIBRARY) != std::string::npos;
    return isSanitized ? SANITIZER_PRELOAD : std::string();
}

// In quick start the control groups do not exist yet; the periodic affinity check puts the process
// into its groups later.
std::vector<std::string> TaskFilesOf(const AppInfo& app, const CgroupMgr& cgroups) {
    if (ProcMgrEnv::GetInstance().IsQuickStart()) {
        return {};
    }
    const AppGroups& groups = *app.groups_;
    const CgroupTaskInfo task{app.appName_,           0,
                              groups.resGroupName_,   groups.cpuset_,
                              groups.blkioGroupName_, groups.cgroupPath_};
    return cgroups.GetTaskPaths(task);
}

LaunchPlan MakeCommonPlan(const AppInfo& app, const CgroupMgr& cgroups,
                          const CoreAffinityMgr& affinity) {
    LaunchPlan plan;
    plan.appName = app.appName_;
    plan.execPath = app.execPath_;
    plan.arguments = app.arguments_;
    plan.uid = app.uid_;
    plan.gid = app.gid_;
    plan.raiseRealTimeLimit = app.rtEnable_;
    if (app.schedPolicy_ != SchedPolicyType::NOT_SET) {
        plan.schedPolicy = ToSystemPolicy(app.schedPolicy_);
    }
    plan.rtPriority = app.rtPriority_;
    plan.taskFiles = TaskFilesOf(app, cgroups);
    plan.coreMask = affinity.MakeMask(app.coreAffinity_);
    plan.isDelayed = app.isDelayCoreAffinity_;
    plan.envs.assign(app.envs_.begin(), app.envs_.end());
    plan.home = app.home_;
    plan.preload = PreloadOf(app.envs_);
    plan.accessConfig = {app.appName_, app.execPath_};
    plan.errorFd = ProcMgrEnv::GetInstance().GetChildErrorWriteFd();
    return plan;
}

}  // namespace

LaunchPlan MakeLaunchPlan(const GeneralAppInfo& app, const CgroupMgr& cgroups,
                          const CoreAffinityMgr& affinity) {
    LaunchPlan plan = MakeCommonPlan(app, cgroups, affinity);
    plan.kind = AppKind::GENERAL;
    plan.nice = app.nice_;
    plan.ownerName = app.owner_;
    plan.plane = app.owner_ == PROC_VINTOR ? PLANE_DATA : PLANE_MANAGE;
    plan.heartBeatSwitch = app.heartBeatSwitch_;
    return plan;
}

LaunchPlan MakeLaunchPlan(const BaseAppInfo& app, const CgroupMgr& cgroups,
                          const CoreAffinityMgr& affinity) {
    LaunchPlan plan = MakeCommonPlan(app, cgroups, affinity);
    plan.kind = AppKind::BASE;
    plan.startupEntryPath = app.startupEntryPath_;
    plan.afterAbnormalExit = app.reportType_ == TERMINATED_ABNORMAL_EXIT;
    return plan;
}

}  // namespace ProcMgr::App
