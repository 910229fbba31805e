#include "app/process_launcher.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <new>

#include "app/child_setup.h"
#include "app/launch_checks.h"
#include "app/sys.h"
#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/log.h"
#include "main/proc_mgr_env.h"
#include "resource/core_affinity_mgr.h"

namespace ProcMgr::App {
namespace {

constexpr pid_t NO_PROCESS = -1;

// Does what is due once there is a child: nothing of that may keep the caller from learning of it.
template <typename Action>
void WithChild(const Action& action) {
    try {
        action();
    } catch (const std::bad_alloc&) {
        ProcMgrLog(LOG_ERR, "PROCMGR : out of memory behind a start");
    }
}

}  // namespace

pid_t ProcessLauncher::Launch(GeneralAppInfo& app) {
    if (!PreStartCheck(app)) {
        return NO_PROCESS;
    }
    LaunchPlan plan = MakeLaunchPlan(app);
    PlanSharePool(app.appName_, app.sharepoolGroups_, plan);
    const pid_t child = ForkChild(app, plan);
    if (child < 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR: Start generalApp failed. fork failed: errno=%d", errno);
        return child;
    }
    WithChild([&] {
        JoinSharePool(app, plan);
        ProcMgrLog(LOG_INFO,
                   "%s Start generalApp success appName=%s, child_pid=%d, isDelayCoreAffinity_=%d",
                   BootStrace(BOOT_TRACE_TAG).c_str(), app.appName_.c_str(), child,
                   app.isDelayCoreAffinity_);
    });
    return child;
}

pid_t ProcessLauncher::Launch(BaseAppInfo& app) {
    if (!PreStartCheck(app)) {
        return NO_PROCESS;
    }
    LaunchPlan plan = MakeLaunchPlan(app);
    PlanSharePool(app.appName_, {}, plan);
    const pid_t child = ForkChild(app, plan);
    if (child < 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Start baseApp %s failed errno=%d", app.appName_.c_str(),
                   errno);
        return child;
    }
    WithChild([&] {
        ProcMgrLog(LOG_INFO,
                   "%s Start baseApp success appName=%s, binPath=%s, pid=%d, "
                   "isDelayCoreAffinity_=%d",
                   BootStrace(BOOT_TRACE_TAG).c_str(), app.appName_.c_str(), app.execPath_.c_str(),
                   child, app.isDelayCoreAffinity_);
        JoinSharePool(app, plan);
    });
    return child;
}

pid_t ProcessLauncher::ForkChild(AppInfo& app, LaunchPlan& plan) {
    const std::lock_guard lock(launchMutex_);
    plan.userGroups = userGroups_.LookUp(app.uid_);
    app.startTime_ = std::chrono::steady_clock::now();
    const pid_t child = Fork(plan);
    if (child >= 0) {
        app.SetStarted(child);
    }
    return child;
}

void ProcessLauncher::Release(const AppInfo& app) {
    CoreAffinityMgr::GetInstance().RecycleThreadCoreInfo(app.pid_, app.appName_);
    if (sharePool_ != nullptr) {
        sharePool_->Forget(app.pid_);
    }
}

void ProcessLauncher::PlanSharePool(
    const std::string& name, const std::vector<std::pair<std::string, std::string>>& manifestGroups,
    LaunchPlan& plan) const {
    if (sharePool_ != nullptr) {
        plan.sharePool = sharePool_->MakePlan(name, manifestGroups);
        plan.sharePoolNames = plan.sharePool.Names();
    }
}

void ProcessLauncher::JoinSharePool(const AppInfo& app, const LaunchPlan& plan) {
    if (sharePool_ != nullptr) {
        // What is known of an earlier process with this pid is not this one's.
        sharePool_->Forget(app.pid_);
        sharePool_->Join(app.appName_, app.pid_, plan.sharePool);
    }
}

bool ProcessLauncher::PreStartCheck(const AppInfo& app) {
    {
        const std::lock_guard lock(launchMutex_);
        if (!CheckChildProParas(app.appName_, app.execPath_, app.uid_, app.arguments_,
                                userGroups_)) {
            return false;
        }
    }
    // May take long: other launches go on.
    if (!integrity_.IntegrityProtect(app.execPath_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : IntegrityProtect app=%s or sha256sum has been modified",
                   app.execPath_.c_str());
        return false;
    }
    const bool isUnchecked = app.IsPriority() && ProcMgrEnv::GetInstance().IsQuickStart();
    return isUnchecked ||
           CoreAffinityMgr::GetInstance().CheckLaunch(app.appName_, app.coreAffinity_);
}

void ProcessLauncher::LookUpUser(uint32_t uid) {
    const std::lock_guard lock(launchMutex_);
    userGroups_.LookUp(uid);
}

pid_t ProcessLauncher::Fork(const LaunchPlan& plan) {
    ChildContext context(plan);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    Sys::pthread_sigmask(SIG_SETMASK, &all, &before);
    pid_t child = -1;
    int error = 0;
    {
        child = Sys::fork();
        error = errno;
    }
    if (child == 0) {
        // Nothing may unwind from here into the daemon's code, which is the parent's to run.
        try {
            RunChild(context);
        } catch (const std::exception&) {
            Sys::_exit(EXIT_FAILURE);
        }
    }
    Sys::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    // To the child, if it waits for this core: what the parent does next can wait.
    Sys::sched_yield();
    errno = error;
    return child;
}

}  // namespace ProcMgr::App
