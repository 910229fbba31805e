#include "app/child_setup.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "app/sys.h"
#include "main/common/daemon_signals.h"
#include "main/common/numbers.h"
#include "resource/task_file.h"

namespace ProcMgr::App {
namespace {

constexpr rlim_t REAL_TIME_LIMIT = 99;
constexpr int EXIT_SETUP_FAILED = 1;
// The exit status after an input/output error of the medium that holds the program.
constexpr int EXIT_INPUT_OUTPUT_ERROR = 125;

// GIVE_UP ends the child without executing the program; used when its user or groups cannot be set.
enum class StepResult { GO_ON, GIVE_UP };

// Adds "TEXTerror;" to the message.
void AddFailure(ChildContext& child, std::string_view text, int error) {
    child.message += text;
    child.message += Decimal(error).Get();
    child.message += ";";
}
// As above, with errno.
void AddFailure(ChildContext& child, std::string_view text) {
    AddFailure(child, text, errno);
}

// Says why the child ends without executing its program.
void NoteFault(ChildContext& child, ChildFault::Step step, int error) {
    if (child.fault != nullptr) {
        child.fault->Write(step, error);
    }
}

bool HasHandler(int signal) {
    struct sigaction present {};
    return Sys::sigaction(signal, nullptr, &present) == 0 && present.sa_handler != SIG_DFL &&
           present.sa_handler != SIG_IGN;
}

void ResetSignal(int signal) {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    Sys::sigaction(signal, &byDefault, nullptr);
}

// The dispositions are reset before the mask is opened: a signal that is pending then takes its
// default action instead of running a handler of the daemon in the child, which may share the
// daemon's memory. A library may have installed handlers, too. A child without the handlers still
// ignores what the daemon, or a library in it, ignores.
StepResult ResetSignals(ChildContext& child) {
    for (const int signal : CHANGED_SIGNALS) {
        ResetSignal(signal);
    }
    for (int signal = 1; child.hasHandlers && signal < NSIG; ++signal) {
        if (HasHandler(signal)) {
            ResetSignal(signal);
        }
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
    child.message += "app=";
    child.message += child.plan.appName;
    child.message += ",pid=";
    child.message += Decimal(child.pid).Get();
    child.message += ",";
    child.message.EndHead();
    return StepResult::GO_ON;
}

// Without a descriptor of its own the child has the standard streams of the daemon.
StepResult ConnectOutput(ChildContext& child) {
    if (child.output < 0) {
        return StepResult::GO_ON;
    }
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        if (Sys::dup2(child.output, stream) < 0) {
            AddFailure(child, "dup2 of the output failed, errno=");
        }
    }
    return StepResult::GO_ON;
}

StepResult RaiseRealTimeLimit(ChildContext& child) {
    if (!child.plan.raiseRealTimeLimit) {
        return StepResult::GO_ON;
    }
    rlimit limit{};
    if (Sys::getrlimit(RLIMIT_RTPRIO, &limit) != 0) {
        AddFailure(child, "getrlimit failed,errno=");
        return StepResult::GO_ON;
    }
    limit.rlim_cur = REAL_TIME_LIMIT;
    limit.rlim_max = REAL_TIME_LIMIT;
    if (Sys::prlimit(child.pid, RLIMIT_RTPRIO, &limit, nullptr) != 0) {
        AddFailure(child, "prlimit failed,errno=");
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
        child.message += "sched_setscheduler failed errno=";
        child.message += Decimal(errno).Get();
        child.message += ",type=";
        child.message += Decimal(policy).Get();
        child.message += ",priority=";
        child.message += Decimal(child.plan.rtPriority).Get();
        child.message += ";";
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
    AppendTidToAll(child.plan.taskFiles, child.pid, child.message);
    return StepResult::GO_ON;
}

bool SetGroups(ChildContext& child) {
    const UserGroups& user = child.plan.userGroups;
    switch (user.result) {
        case UserGroups::Result::NO_USER:
            NoteFault(child, ChildFault::Step::NO_USER, user.error);
            child.message += "getpwuid is null;";
            return false;
        case UserGroups::Result::NOT_WIPED:
            NoteFault(child, ChildFault::Step::GROUPS, user.error);
            AddFailure(child, "SetGroups memset_s failed error=", user.error);
            return false;
        case UserGroups::Result::TOO_MANY:
            NoteFault(child, ChildFault::Step::GROUPS, user.error);
            return false;
        case UserGroups::Result::FOUND:
            break;
    }
    if (Sys::setgroups(user.groups.size(), user.groups.data()) == 0) {
        return true;
    }
    NoteFault(child, ChildFault::Step::SETGROUPS, errno);
    return false;
}

// Whether this is the real, the effective and the saved id of the process. To set it again would
// change nothing and take longer than this look.
bool HasOnly(int (*get)(uid_t* real, uid_t* effective, uid_t* saved), uid_t id) {
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return get(&real, &effective, &saved) == 0 && real == id && effective == id && saved == id;
}
static_assert(std::is_same_v<uid_t, gid_t>);

StepResult SetIdentity(ChildContext& child) {
    if (!SetGroups(child)) {
        return StepResult::GIVE_UP;
    }
    if (!HasOnly(Sys::getresgid, child.plan.gid) && Sys::setgid(child.plan.gid) != 0) {
        NoteFault(child, ChildFault::Step::SETGID, errno);
        child.message += "SetAppGid=";
        child.message += Decimal(child.plan.gid).Get();
        AddFailure(child, " failed error=");
        return StepResult::GIVE_UP;
    }
    if (!HasOnly(Sys::getresuid, child.plan.uid) && Sys::setuid(child.plan.uid) != 0) {
        NoteFault(child, ChildFault::Step::SETUID, errno);
        child.message += "SetAppUid=";
        child.message += Decimal(child.plan.uid).Get();
        AddFailure(child, ",failed error=");
        return StepResult::GIVE_UP;
    }
    return StepResult::GO_ON;
}

StepResult ReportEnvironmentBeforeAccess(ChildContext& child) {
    child.message += child.plan.environment.errorBeforeAccess;
    return StepResult::GO_ON;
}

StepResult RegisterAccess(ChildContext& child) {
    if (ZornInitProc(child.plan.accessConfig) < 0) {
        AddFailure(child, "ZornInitProc failed, errno=");
    }
    return StepResult::GO_ON;
}

StepResult ReportEnvironmentAfterAccess(ChildContext& child) {
    child.message += child.plan.environment.errorAfterAccess;
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
    CoreAffinityMgr::PinTo(child.pid, CoreAffinityMgr::AllCores(), child.message);
    return child.binds.Get() == child.bindsBeforeFork;
}

// A missing tasks file of the accelerator's cpuset is logged by the parent, in ForkChild().
StepResult BindCores(ChildContext& child) {
    if (IsBindAwaited(child)) {
        return StepResult::GO_ON;
    }
    if (child.aiTasks >= 0) {
        const TidLine line(child.pid);
        [[maybe_unused]] const ssize_t written =
            Sys::write(child.aiTasks, line.Get().data(), line.Get().size());
    }
    CoreAffinityMgr::PinTo(child.pid, child.plan.coreMask, child.message);
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
    ChildStep{ConnectOutput, {}},
    ChildStep{RaiseRealTimeLimit, {}},
    ChildStep{SetScheduler, {}},
    ChildStep{SetNice, AppKind::GENERAL},
    ChildStep{JoinControlGroups, {}},
    ChildStep{SetIdentity, {}},
    ChildStep{ReportEnvironmentBeforeAccess, {}},
    ChildStep{RegisterAccess, {}},
    ChildStep{ReportEnvironmentAfterAccess, {}},
    ChildStep{BindCores, {}},
};

// Writes the message, "app=NAME,pid=PID,TEXT", to the plan's error descriptor in one piece. Writes
// nothing when there is no text or no descriptor.
void ReportChildError(const ChildContext& child) {
    const int fd = child.plan.errorFd;
    if (child.message.IsEmpty() || fd == -1) {
        return;
    }
    const std::string_view text = child.message.Get();
    [[maybe_unused]] const ssize_t written = Sys::write(fd, text.data(), text.size());
}

// execve declares its strings without const but does not change them.
char* ToArgument(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

// Executes the program, and returns errno when that has failed. The kernel answers EAGAIN when the
// user has too many processes. In a restart the zombie of the process before still counts for a
// moment: the reaper frees it a millisecond after the restart.
int Execute(ChildContext& child) {
    constexpr int ATTEMPTS = 50;
    constexpr timespec PAUSE{0, 1'000'000};
    for (int attempt = 1;; ++attempt) {
        Sys::execve(child.plan.execPath.c_str(), child.argv.data(),
                    child.variables == nullptr ? child.envp.data() : *child.variables);
        if (errno != EAGAIN || attempt == ATTEMPTS) {
            return errno;
        }
        Sys::Sleep(PAUSE);
    }
}

}  // namespace

ChildContext::ChildContext(LaunchPlan launchPlan, const BindCount& bindCount)
    : plan(std::move(launchPlan)), binds(bindCount), bindsBeforeFork(bindCount.Get()) {
    argv.reserve(plan.arguments.size() + 2);
    argv.push_back(ToArgument(plan.execPath));
    for (const std::string& argument : plan.arguments) {
        argv.push_back(ToArgument(argument));
    }
    argv.push_back(nullptr);
    const std::vector<std::string>& block = plan.environment.block.Get();
    envp.reserve(block.size() + 1);
    for (const std::string& variable : block) {
        envp.push_back(ToArgument(variable));
    }
    envp.push_back(nullptr);
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
    const int error = Execute(child);
    NoteFault(child, ChildFault::Step::EXECUTE, error);
    child.message.Clear();
    child.message += "execv failed, execPath_=";
    child.message += plan.execPath;
    AddFailure(child, ", errno=", error);
    ReportChildError(child);
    Sys::_exit(error == EIO ? EXIT_INPUT_OUTPUT_ERROR : EXIT_SETUP_FAILED);
}

}  // namespace ProcMgr::App
