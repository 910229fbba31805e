#include "app/child_setup.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <optional>
#include <string>

#include "app/sys.h"
#include "main/common/daemon_signals.h"
#include "resource/task_file.h"

namespace ProcMgr::App {
namespace {

constexpr const char* ENV_PROC_PLANE = "PROC_PLANE";

constexpr rlim_t REAL_TIME_LIMIT = 99;
// Bytes of error text for which memory is allocated before the fork.
constexpr size_t ERROR_RESERVE = 2048;
constexpr int EXIT_SETUP_FAILED = 1;
// The exit status after an input/output error of the medium that holds the program.
constexpr int EXIT_INPUT_OUTPUT_ERROR = 125;

// GIVE_UP ends the child without executing the program; used when its user or groups cannot be set.
enum class StepResult { GO_ON, GIVE_UP };

// The dispositions are reset before the mask is opened: a signal that is pending then takes its
// default action instead of running a handler of the daemon in the child.
StepResult ResetSignals(ChildContext& /*child*/) {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (const int signal : CHANGED_SIGNALS) {
        Sys::sigaction(signal, &byDefault, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    Sys::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    return StepResult::GO_ON;
}

// The child leads a session of its own: a signal to the daemon's process group, or the hang-up of
// the daemon's terminal, does not reach it.
StepResult StartSession(ChildContext& /*child*/) {
    [[maybe_unused]] const pid_t session = Sys::setsid();
    return StepResult::GO_ON;
}

// Marks every descriptor but the standard streams close-on-exec. The daemon opens its own that way,
// but a library in the daemon may not. Kernels before 5.11 refuse the call; the child then goes on.
StepResult SealDescriptors(ChildContext& /*child*/) {
    constexpr unsigned FIRST = STDERR_FILENO + 1;
    [[maybe_unused]] const int result = Sys::close_range(FIRST, ~0U, CLOSE_RANGE_CLOEXEC);
    return StepResult::GO_ON;
}

StepResult StorePid(ChildContext& child) {
    child.pid = Sys::getpid();
    return StepResult::GO_ON;
}

StepResult RaiseRealTimeLimit(ChildContext& child) {
    if (!child.plan.raiseRealTimeLimit) {
        return StepResult::GO_ON;
    }
    rlimit limit{};
    if (Sys::getrlimit(RLIMIT_RTPRIO, &limit) != 0) {
        child.error += "getrlimit failed,errno=" + std::to_string(errno) + ";";
        return StepResult::GO_ON;
    }
    limit.rlim_cur = REAL_TIME_LIMIT;
    limit.rlim_max = REAL_TIME_LIMIT;
    if (Sys::prlimit(child.pid, RLIMIT_RTPRIO, &limit, nullptr) != 0) {
        child.error += "prlimit failed,errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetScheduler(ChildContext& child) {
    if (!child.plan.schedPolicy) {
        return StepResult::GO_ON;
    }
    const int policy = *child.plan.schedPolicy;
    sched_param parameter{};
    parameter.sched_priority = child.plan.rtPriority;
    if (Sys::sched_setscheduler(child.pid, policy, &parameter) != 0) {
        child.error += "sched_setscheduler failed errno=" + std::to_string(errno) +
                       ",type=" + std::to_string(policy) +
                       ",priority=" + std::to_string(child.plan.rtPriority) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetNice(ChildContext& child) {
    if (child.plan.nice != 0) {
        [[maybe_unused]] const int result = Sys::nice(child.plan.nice);
    }
    return StepResult::GO_ON;
}

StepResult JoinControlGroups(ChildContext& child) {
    AppendTidToAll(child.plan.taskFiles, child.pid, child.error);
    return StepResult::GO_ON;
}

bool SetGroups(ChildContext& child) {
    const UserGroups& user = child.plan.userGroups;
    switch (user.result) {
        case UserGroups::Result::NO_USER:
            child.error += "getpwuid is null;";
            return false;
        case UserGroups::Result::NOT_WIPED:
            child.error += "SetGroups memset_s failed error=" + std::to_string(user.error) + ";";
            return false;
        case UserGroups::Result::TOO_MANY:
            return false;
        case UserGroups::Result::FOUND:
            return Sys::setgroups(user.groups.size(), user.groups.data()) == 0;
    }
    return false;
}

StepResult SetIdentity(ChildContext& child) {
    if (!SetGroups(child)) {
        return StepResult::GIVE_UP;
    }
    if (Sys::setgid(child.plan.gid) != 0) {
        child.error += "SetAppGid=" + std::to_string(child.plan.gid) +
                       " failed error=" + std::to_string(errno) + ";";
        return StepResult::GIVE_UP;
    }
    if (Sys::setuid(child.plan.uid) != 0) {
        child.error += "SetAppUid=" + std::to_string(child.plan.uid) +
                       ",failed error=" + std::to_string(errno) + ";";
        return StepResult::GIVE_UP;
    }
    return StepResult::GO_ON;
}

// setenv takes a lock of the C library. No thread of the daemon changes the environment while a
// launch is under way, so no thread held that lock at the fork.
bool SetEnv(const std::string& key, const std::string& value) {
    return Sys::setenv(key.c_str(), value.c_str(), 1) == 0;
}

bool SetConfiguredEnv(ChildContext& child) {
    for (const auto& [key, value] : child.plan.envs) {
        if (!SetEnv(key, value)) {
            child.error += "setenv failed, errno=" + std::to_string(errno) + ";";
            return false;
        }
    }
    return true;
}

StepResult SetSharePool(ChildContext& child) {
    const SharePoolPlan& pool = child.plan.sharePool;
    if (pool.groups.empty()) {
        return StepResult::GO_ON;
    }
    if (!SetEnv("SHAREPOOL_GROUP_NAME", child.plan.sharePoolNames) ||
        !SetEnv("SHAREGROUP_PRECONFIG", pool.isPreconfigured ? "1" : "0")) {
        child.error += "Set share pool env failed, errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetPlane(ChildContext& child) {
    if (!SetEnv(ENV_PROC_PLANE, child.plan.plane)) {
        child.error += std::string("SetPlaneEnv ") + ENV_PROC_PLANE +
                       " failed errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetHome(ChildContext& child) {
    if (!SetEnv("HOME", child.plan.home)) {
        child.error += "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=" + child.plan.home +
                       ", errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetEnvironment(ChildContext& child) {
    SetConfiguredEnv(child);
    return StepResult::GO_ON;
}

StepResult SetEnvironmentAndOwner(ChildContext& child) {
    if (SetConfiguredEnv(child) && !SetEnv("OWNER_NAME", child.plan.ownerName)) {
        child.error += "setenv failed, errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult RegisterAccess(ChildContext& child) {
    if (ZornInitProc(child.plan.accessConfig) < 0) {
        child.error += "ZornInitProc failed, errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetHeartBeatSwitch(ChildContext& child) {
    if (child.plan.heartBeatSwitch && !SetEnv("GRP_HB", "1")) {
        child.error += "SetHeartBeatSwitchEnv  failed errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetPreload(ChildContext& child) {
    if (!child.plan.preload.empty() && !SetEnv("LD_PRELOAD", child.plan.preload)) {
        child.error += "SetAppAsanEnv preload failed errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetRestartMarker(ChildContext& child) {
    if (!SetEnv("IS_RESTART", child.plan.afterAbnormalExit ? "1" : "0")) {
        child.error += "Set restart env failed, errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

StepResult SetStartupEntry(ChildContext& child) {
    if (!child.plan.startupEntryPath.empty() &&
        !SetEnv("STARTUP_ENTRY_PATH", child.plan.startupEntryPath)) {
        child.error += "Set startup entry path env failed, errno=" + std::to_string(errno) + ";";
    }
    return StepResult::GO_ON;
}

// Whether the child of a delayed application keeps all cores until the application is bound. The
// child is first set to all cores, because it has inherited the daemon's cores. When delayed
// applications have been bound since the fork, that bind may have come before this call: the child
// then has to pin itself, and the function returns false.
bool IsBindAwaited(ChildContext& child) {
    if (!child.plan.isDelayed) {
        return false;
    }
    CoreAffinityMgr::PinTo(child.pid, CoreAffinityMgr::AllCores(), child.error);
    return child.binds.Get() == child.bindsBeforeFork;
}

// A missing tasks file of the accelerator's cpuset is logged by the parent, in ForkChild().
StepResult BindCores(ChildContext& child) {
    if (IsBindAwaited(child)) {
        return StepResult::GO_ON;
    }
    if (child.aiTasks.IsValid()) {
        const std::string line = std::to_string(child.pid) + '\n';
        [[maybe_unused]] const ssize_t written =
            Sys::write(child.aiTasks.Get(), line.data(), line.size());
    }
    CoreAffinityMgr::PinTo(child.pid, child.plan.coreMask, child.error);
    return StepResult::GO_ON;
}

struct ChildStep {
    StepResult (*run)(ChildContext& child);
    std::optional<AppKind> kind;  // the kind of application that takes the step; none: both kinds
};

// Every step, in the order in which the child of either kind takes its own.
constexpr std::array STEPS = {
    ChildStep{ResetSignals, {}},
    ChildStep{StartSession, {}},
    ChildStep{SealDescriptors, {}},
    ChildStep{StorePid, {}},
    ChildStep{RaiseRealTimeLimit, {}},
    ChildStep{SetScheduler, {}},
    ChildStep{SetNice, AppKind::GENERAL},
    ChildStep{JoinControlGroups, {}},
    ChildStep{SetIdentity, {}},
    ChildStep{SetSharePool, {}},
    ChildStep{SetPlane, AppKind::GENERAL},
    ChildStep{SetHome, AppKind::GENERAL},
    ChildStep{SetEnvironmentAndOwner, AppKind::GENERAL},
    ChildStep{SetEnvironment, AppKind::BASE},
    ChildStep{RegisterAccess, {}},
    ChildStep{SetHome, AppKind::BASE},
    ChildStep{SetHeartBeatSwitch, AppKind::GENERAL},
    ChildStep{SetPreload, {}},
    ChildStep{SetRestartMarker, AppKind::BASE},
    ChildStep{SetStartupEntry, AppKind::BASE},
    ChildStep{BindCores, {}},
};

// Writes "app=NAME,pid=PID,TEXT" to the plan's error descriptor in one piece. Writes nothing when
// there is no text or no descriptor.
void ReportChildError(const ChildContext& child) {
    const int fd = child.plan.errorFd;
    if (child.error.empty() || fd == -1) {
        return;
    }
    const std::string message =
        "app=" + child.plan.appName + ",pid=" + std::to_string(child.pid) + "," + child.error;
    // A pipe takes up to PIPE_BUF bytes as a whole. A longer message could mix with the message of
    // another child, so the rest is cut off.
    const size_t length = std::min<size_t>(message.size(), PIPE_BUF);
    [[maybe_unused]] const ssize_t written = Sys::write(fd, message.data(), length);
}

}  // namespace

ChildContext::ChildContext(const LaunchPlan& launchPlan, const BindCount& bindCount)
    : plan(launchPlan), binds(bindCount), bindsBeforeFork(bindCount.Get()) {
    // execv declares its strings without const but does not change them.
    argv.push_back(const_cast<char*>(plan.execPath.c_str()));
    for (const std::string& argument : plan.arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    error.reserve(ERROR_RESERVE);
    if (plan.coreMask && plan.coreMask->aiCores > 0) {
        aiTasks = Wire::UniqueFd(CoreAffinityMgr::OpenAiCpuset());
    }
}

void RunChild(ChildContext& child) {
    const LaunchPlan& plan = child.plan;
    for (const ChildStep& step : STEPS) {
        const bool isTaken = !step.kind || *step.kind == plan.kind;
        if (isTaken && step.run(child) == StepResult::GIVE_UP) {
            ReportChildError(child);
            Sys::_exit(EXIT_SETUP_FAILED);
        }
    }
    ReportChildError(child);
    Sys::execv(plan.execPath.c_str(), child.argv.data());
    const int error = errno;
    child.error =
        "execv failed, execPath_=" + plan.execPath + ", errno=" + std::to_string(error) + ";";
    ReportChildError(child);
    Sys::_exit(error == EIO ? EXIT_INPUT_OUTPUT_ERROR : EXIT_SETUP_FAILED);
}

}  // namespace ProcMgr::App
