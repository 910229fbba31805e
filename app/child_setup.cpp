#include "app/child_setup.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "app/sys.h"
#include "main/common/daemon_signals.h"
#include "resource/bind_count.h"
#include "resource/task_file.h"

namespace ProcMgr::App {
namespace {

constexpr const char* ENV_PROC_PLANE = "PROC_PLANE";

constexpr rlim_t REAL_TIME_LIMIT = 99;
constexpr size_t ERROR_RESERVE = 2048;
constexpr int EXIT_SETUP_FAILED = 1;
// Tells an input/output error of the program's medium from every other failure to execute it.
constexpr int EXIT_INPUT_OUTPUT_ERROR = 125;

// Dispositions first: with an open mask, a pending signal must find the default action and not a
// handler of the daemon's.
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

// A session of its own: a signal to its process group, or a terminal that hangs up, is for this
// service alone.
StepResult StartSession(ChildContext& /*child*/) {
    [[maybe_unused]] const pid_t session = Sys::setsid();
    return StepResult::GO_ON;
}

// The daemon opens everything close-on-exec; a library in it may not. Kernels before 5.11 cannot.
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

// Nobody changes the daemon's environment while a launch is under way, so its lock is free here.
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

// The daemon's cores are not for an application that is bound later. A bind that comes between the
// fork and here has been undone by this.
bool IsBindAwaited(ChildContext& child) {
    if (!child.plan.isDelayed) {
        return false;
    }
    CoreAffinityMgr::PinTo(child.pid, CoreAffinityMgr::AllCores(), child.error);
    return BindCount::GetInstance().Get() == child.bindCount;
}

// The parent has logged a missing tasks file of the accelerator's cores.
StepResult BindCores(ChildContext& child) {
    if (IsBindAwaited(child)) {
        return StepResult::GO_ON;
    }
    if (child.aiTasksFd >= 0) {
        const std::string line = std::to_string(child.pid) + '\n';
        [[maybe_unused]] const ssize_t written =
            Sys::write(child.aiTasksFd, line.data(), line.size());
    }
    CoreAffinityMgr::PinTo(child.pid, child.plan.coreMask, child.error);
    return StepResult::GO_ON;
}

constexpr std::array GENERAL_STEPS = {
    ChildStep{"signals", ResetSignals},
    ChildStep{"session", StartSession},
    ChildStep{"descriptors", SealDescriptors},
    ChildStep{"pid", StorePid},
    ChildStep{"real-time limit", RaiseRealTimeLimit},
    ChildStep{"scheduler", SetScheduler},
    ChildStep{"nice", SetNice},
    ChildStep{"control groups", JoinControlGroups},
    ChildStep{"identity", SetIdentity},
    ChildStep{"share pool", SetSharePool},
    ChildStep{"plane", SetPlane},
    ChildStep{"home", SetHome},
    ChildStep{"environment, owner", SetEnvironmentAndOwner},
    ChildStep{"access registration", RegisterAccess},
    ChildStep{"heartbeat", SetHeartBeatSwitch},
    ChildStep{"address sanitiser", SetPreload},
    ChildStep{"cores", BindCores},
};

constexpr std::array BASE_STEPS = {
    ChildStep{"signals", ResetSignals},
    ChildStep{"session", StartSession},
    ChildStep{"descriptors", SealDescriptors},
    ChildStep{"pid", StorePid},
    ChildStep{"real-time limit", RaiseRealTimeLimit},
    ChildStep{"scheduler", SetScheduler},
    ChildStep{"control groups", JoinControlGroups},
    ChildStep{"identity", SetIdentity},
    ChildStep{"share pool", SetSharePool},
    ChildStep{"environment", SetEnvironment},
    ChildStep{"access registration", RegisterAccess},
    ChildStep{"home", SetHome},
    ChildStep{"address sanitiser", SetPreload},
    ChildStep{"restart marker", SetRestartMarker},
    ChildStep{"start entry", SetStartupEntry},
    ChildStep{"cores", BindCores},
};

}  // namespace

ChildContext::ChildContext(const LaunchPlan& launchPlan) : plan(launchPlan) {
    // execv takes its strings as not const and leaves them alone.
    argv.push_back(const_cast<char*>(plan.execPath.c_str()));
    for (const std::string& argument : plan.arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    error.reserve(ERROR_RESERVE);
    if (plan.coreMask && plan.coreMask->aiCores > 0) {
        aiTasksFd = CoreAffinityMgr::OpenAiCpuset();
    }
    bindCount = BindCount::GetInstance().Get();
}

ChildContext::~ChildContext() {
    if (aiTasksFd >= 0) {
        close(aiTasksFd);
    }
}

std::span<const ChildStep> GetChildSteps(AppKind kind) {
    if (kind == AppKind::GENERAL) {
        return GENERAL_STEPS;
    }
    return BASE_STEPS;
}

void RunChild(ChildContext& child) {
    const LaunchPlan& plan = child.plan;
    for (const ChildStep& step : GetChildSteps(plan.kind)) {
        if (step.run(child) == StepResult::GIVE_UP) {
            ReportChildError(plan.errorFd, plan.appName, child.pid, child.error);
            Sys::_exit(EXIT_SETUP_FAILED);
        }
    }
    ReportChildError(plan.errorFd, plan.appName, child.pid, child.error);
    Sys::execv(plan.execPath.c_str(), child.argv.data());
    const int error = errno;
    child.error =
        "execv failed, execPath_=" + plan.execPath + ", errno=" + std::to_string(error) + ";";
    ReportChildError(plan.errorFd, plan.appName, child.pid, child.error);
    Sys::_exit(error == EIO ? EXIT_INPUT_OUTPUT_ERROR : EXIT_SETUP_FAILED);
}

void ReportChildError(int fd, const std::string& appName, pid_t pid, const std::string& text) {
    if (text.empty() || fd == -1) {
        return;
    }
    const std::string message = "app=" + appName + ",pid=" + std::to_string(pid) + "," + text;
    // A longer one would not be written whole, and might mix with that of another child.
    const size_t length = std::min<size_t>(message.size(), PIPE_BUF);
    [[maybe_unused]] const ssize_t written = Sys::write(fd, message.data(), length);
}

}  // namespace ProcMgr::App
