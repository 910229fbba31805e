#include "app/process_launcher.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <new>
#include <utility>

#include "app/base_app_info.h"
#include "app/child_setup.h"
#include "app/general_app_info.h"
#include "app/launch_checks.h"
#include "app/sys.h"
#include "main/common/boot_trace.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "resource/cgroup_paths.h"
#include "wire/unique_fd.h"

namespace ProcMgr::App {
namespace {

// Runs an action after the fork. Catches std::bad_alloc, so that Fork() returns the pid of the
// child in any case.
template <typename Action>
void WithChild(const Action& action) {
    try {
        action();
    } catch (const std::bad_alloc&) {
        ProcMgrLog(LOG_ERR, "PROCMGR : out of memory after the start of a process");
    }
}

void NoteRefusal(const AppInfo& app, StartRefusal refusal) {
    if (app.history_ != nullptr) {
        app.history_->NoteRefusal(refusal);
    }
}

void RunSharedChild(void* argument, bool hasHandlers) {
    ChildContext& context = *static_cast<ChildContext*>(argument);
    context.hasHandlers = hasHandlers;
    RunChild(context);
}

// A child joins its memory group before it executes its program. When that group has no memory
// left, the kernel ends every process that shares the memory of its victim.
bool MayShareMemory(const LaunchPlan& plan) {
    return std::none_of(plan.taskFiles.begin(), plan.taskFiles.end(), [](const std::string& path) {
        return path.starts_with(CGROUP_MEMORY_ROOT);
    });
}

// Below 0 without a slot, and when the kernel refuses a child that shares the memory.
pid_t CloneChild(const std::shared_ptr<ChildContext>& context, ChildSlots::Lease slot) {
    return slot.IsValid() ? slot.Create(RunSharedChild, context.get(), context) : -1;
}

pid_t ForkChild(ChildContext& context) {
    const pid_t child = Sys::fork();
    if (child == 0) {
        // The access registration sees, and may change, the variables of the program.
        Sys::Variables() = context.envp.data();
        context.variables = &Sys::Variables();
        // An exception must not leave this function in the child: only the parent may run the
        // daemon's code.
        try {
            RunChild(context);
        } catch (const std::exception&) {
            Sys::_exit(EXIT_FAILURE);
        }
    }
    return child;
}

}  // namespace

void ProcessLauncher::WarmUp() {
    slowJobs_.Post([this] {
        slots_.Fill();
        userGroups_.LookUp(geteuid());
    });
}

std::optional<LaunchPlan> ProcessLauncher::Prepare(const GeneralAppInfo& app) {
    if (!PreStartCheck(app)) {
        return std::nullopt;
    }
    LaunchPlan plan = MakeLaunchPlan(app, cgroups_, affinity_);
    FinishPlan(app, app.sharepoolGroups_, plan);
    return plan;
}

std::optional<LaunchPlan> ProcessLauncher::Prepare(const BaseAppInfo& app) {
    if (!PreStartCheck(app)) {
        return std::nullopt;
    }
    LaunchPlan plan = MakeLaunchPlan(app, cgroups_, affinity_);
    FinishPlan(app, {}, plan);
    return plan;
}

bool ProcessLauncher::IsQuick(const AppInfo& app) {
    return !integrity_.IsProtected(app.execPath_) && userGroups_.Find(app.uid_).has_value();
}

pid_t ProcessLauncher::Fork(GeneralAppInfo& app, LaunchPlan& plan) {
    ChildSlots::Lease slot = std::move(plan.slot);
    Output::OutputTarget output = std::move(plan.output);
    const auto context = std::make_shared<ChildContext>(std::move(plan), binds_);
    const pid_t child = CreateChild(app, context, std::move(slot), std::move(output));
    if (child < 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR: Start generalApp failed. fork failed: errno=%d", errno);
        NoteRefusal(app, StartRefusal::NO_PROCESS);
        return child;
    }
    WithChild([&] {
        JoinSharePool(app, context->plan);
        ProcMgrLog(LOG_INFO,
                   "%s Start generalApp success appName=%s, child_pid=%d, isDelayCoreAffinity_=%d",
                   BootStrace(BOOT_TRACE_TAG).c_str(), app.appName_.c_str(), child,
                   app.isDelayCoreAffinity_);
    });
    return child;
}

pid_t ProcessLauncher::Fork(BaseAppInfo& app, LaunchPlan& plan) {
    ChildSlots::Lease slot = std::move(plan.slot);
    Output::OutputTarget output = std::move(plan.output);
    const auto context = std::make_shared<ChildContext>(std::move(plan), binds_);
    const pid_t child = CreateChild(app, context, std::move(slot), std::move(output));
    if (child < 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Start baseApp %s failed errno=%d", app.appName_.c_str(),
                   errno);
        NoteRefusal(app, StartRefusal::NO_PROCESS);
        return child;
    }
    WithChild([&] {
        ProcMgrLog(LOG_INFO,
                   "%s Start baseApp success appName=%s, binPath=%s, pid=%d, "
                   "isDelayCoreAffinity_=%d",
                   BootStrace(BOOT_TRACE_TAG).c_str(), app.appName_.c_str(), app.execPath_.c_str(),
                   child, app.isDelayCoreAffinity_);
        JoinSharePool(app, context->plan);
    });
    return child;
}

// All signals are blocked meanwhile, so that no handler of the daemon runs in the child.
pid_t ProcessLauncher::CreateChild(AppInfo& app, const std::shared_ptr<ChildContext>& context,
                                   ChildSlots::Lease slot, Output::OutputTarget output) {
    const std::optional<CoreMask>& mask = context->plan.coreMask;
    const bool isForAccelerator = mask && mask->aiCores > 0;
    const Wire::UniqueFd aiTasks(isForAccelerator ? CoreAffinityMgr::OpenAiCpuset() : -1);
    context->aiTasks = aiTasks.Get();
    context->output = output.writeEnd.Get();
    if (app.history_ != nullptr) {
        context->fault = AppHistory::TakeFaultNote(app.history_);
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    Sys::pthread_sigmask(SIG_SETMASK, &all, &before);
    app.startTime_ = std::chrono::steady_clock::now();
    pid_t child = CloneChild(context, std::move(slot));
    if (child < 0) {
        child = ForkChild(*context);
    }
    const int error = errno;
    if (child > 0) {
        app.SetStarted(child);
    }
    Sys::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (child > 0 && output_ != nullptr) {
        output_->Adopt(std::move(output), child);
    }
    if (child > 0 && !context->plan.isDelayed && isForAccelerator && !aiTasks.IsValid()) {
        WithChild([&] { CoreAffinityMgr::LogMissingAiCpuset(child, *mask); });
    }
    errno = error;
    return child;
}

void ProcessLauncher::Release(const AppInfo& app) {
    affinity_.RecycleThreadCoreInfo(app.pid_, app.appName_);
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
    if (output_ != nullptr) {
        plan.output = output_->Prepare(app.appName_, app.output_, app.uid_);
    }
    plan.environment = MakeChildEnvironment(plan);
    // Last: nothing else is waited for while the launch has a slot.
    if (MayShareMemory(plan)) {
        plan.slot = slots_.Take(plan.uid != geteuid() || plan.gid != getegid());
    }
}

void ProcessLauncher::JoinSharePool(const AppInfo& app, const LaunchPlan& plan) {
    if (sharePool_ != nullptr) {
        // Drops what is stored for an earlier process with the same pid.
        sharePool_->Forget(app.pid_);
        sharePool_->Join(app.appName_, app.pid_, plan.sharePool);
    }
}

bool ProcessLauncher::PreStartCheck(const AppInfo& app) {
    const StartRefusal refusal = FindRefusal(app);
    if (refusal != StartRefusal::NONE) {
        NoteRefusal(app, refusal);
    }
    return refusal == StartRefusal::NONE;
}

StartRefusal ProcessLauncher::FindRefusal(const AppInfo& app) {
    const StartRefusal refusal =
        CheckChildProParas(app.appName_, app.execPath_, app.uid_, app.arguments_, userGroups_);
    if (refusal != StartRefusal::NONE) {
        return refusal;
    }
    if (!integrity_.IntegrityProtect(app.execPath_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : IntegrityProtect app=%s or sha256sum has been modified",
                   app.execPath_.c_str());
        return StartRefusal::MODIFIED;
    }
    const bool isUnchecked = app.IsPriority() && ProcMgrEnv::GetInstance().IsQuickStart();
    return isUnchecked || affinity_.CheckLaunch(app.appName_, app.coreAffinity_)
               ? StartRefusal::NONE
               : StartRefusal::CORES;
}

}  // namespace ProcMgr::App
