#include "app/process_launcher.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <new>

#include "app/base_app_info.h"
#include "app/child_setup.h"
#include "app/general_app_info.h"
#include "app/launch_checks.h"
#include "app/sys.h"
#include "main/common/boot_trace.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "resource/core_affinity_mgr.h"

namespace ProcMgr::App {
namespace {

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

std::optional<LaunchPlan> ProcessLauncher::Prepare(const GeneralAppInfo& app) {
    if (!PreStartCheck(app)) {
        return std::nullopt;
    }
    LaunchPlan plan = MakeLaunchPlan(app);
    FinishPlan(app, app.sharepoolGroups_, plan);
    return plan;
}

std::optional<LaunchPlan> ProcessLauncher::Prepare(const BaseAppInfo& app) {
    if (!PreStartCheck(app)) {
        return std::nullopt;
    }
    LaunchPlan plan = MakeLaunchPlan(app);
    FinishPlan(app, {}, plan);
    return plan;
}

bool ProcessLauncher::IsQuick(const AppInfo& app) {
    return !integrity_.IsProtected(app.execPath_) && userGroups_.Find(app.uid_).has_value();
}

pid_t ProcessLauncher::Fork(GeneralAppInfo& app, LaunchPlan& plan) {
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

pid_t ProcessLauncher::Fork(BaseAppInfo& app, LaunchPlan& plan) {
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

// Every signal is blocked meanwhile: no handler of the daemon's runs in the child.
pid_t ProcessLauncher::ForkChild(AppInfo& app, LaunchPlan& plan) {
    ChildContext context(plan);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    Sys::pthread_sigmask(SIG_SETMASK, &all, &before);
    app.startTime_ = std::chrono::steady_clock::now();
    const pid_t child = Sys::fork();
    const int error = errno;
    if (child == 0) {
        // Nothing may unwind from here into the daemon's code, which is the parent's to run.
        try {
            RunChild(context);
        } catch (const std::exception&) {
            Sys::_exit(EXIT_FAILURE);
        }
    }
    if (child > 0) {
        app.SetStarted(child);
    }
    Sys::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    // When the child waits for this core, it goes first: its exec takes longest.
    Sys::sched_yield();
    if (child > 0 && !plan.isDelayed && plan.coreMask && context.aiTasksFd < 0) {
        WithChild([&] { CoreAffinityMgr::LogMissingAiCpuset(child, *plan.coreMask); });
    }
    errno = error;
    return child;
}

void ProcessLauncher::Release(const AppInfo& app) {
    CoreAffinityMgr::GetInstance().RecycleThreadCoreInfo(app.pid_, app.appName_);
    if (sharePool_ != nullptr) {
        sharePool_->Forget(app.pid_);
    }
}

void ProcessLauncher::FinishPlan(
    const AppInfo& app, const std::vector<std::pair<std::string, std::string>>& manifestGroups,
    LaunchPlan& plan) {
    plan.userGroups = userGroups_.LookUp(app.uid_);
    if (sharePool_ != nullptr) {
        plan.sharePool = sharePool_->MakePlan(app.appName_, manifestGroups);
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
    if (!CheckChildProParas(app.appName_, app.execPath_, app.uid_, app.arguments_, userGroups_)) {
        return false;
    }
    if (!integrity_.IntegrityProtect(app.execPath_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : IntegrityProtect app=%s or sha256sum has been modified",
                   app.execPath_.c_str());
        return false;
    }
    const bool isUnchecked = app.IsPriority() && ProcMgrEnv::GetInstance().IsQuickStart();
    return isUnchecked ||
           CoreAffinityMgr::GetInstance().CheckLaunch(app.appName_, app.coreAffinity_);
}

}  // namespace ProcMgr::App
