#include "status/words.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <system_error>

#include "app/app_facts.h"
#include "app/sensor_node_event_reporter.h"

namespace ProcMgr::Status {
namespace {

using App::ChangeReason;
using App::ChildFault;
using App::StartRefusal;

constexpr std::array REASONS = {"started",        "found running", "reported",       "termination",
                                "term timed out", "restart",       "restart failed", "exited"};
static_assert(REASONS.size() == static_cast<size_t>(ChangeReason::EXITED) + 1);

struct SignalName {
    int signal;
    const char* name;
};

// The signals that end a process, or that are sent to end it.
constexpr std::array SIGNALS = {
    SignalName{SIGHUP, "SIGHUP"},   SignalName{SIGINT, "SIGINT"},
    SignalName{SIGQUIT, "SIGQUIT"}, SignalName{SIGILL, "SIGILL"},
    SignalName{SIGTRAP, "SIGTRAP"}, SignalName{SIGABRT, "SIGABRT"},
    SignalName{SIGBUS, "SIGBUS"},   SignalName{SIGFPE, "SIGFPE"},
    SignalName{SIGKILL, "SIGKILL"}, SignalName{SIGUSR1, "SIGUSR1"},
    SignalName{SIGSEGV, "SIGSEGV"}, SignalName{SIGUSR2, "SIGUSR2"},
    SignalName{SIGPIPE, "SIGPIPE"}, SignalName{SIGALRM, "SIGALRM"},
    SignalName{SIGTERM, "SIGTERM"}, SignalName{SIGXCPU, "SIGXCPU"},
    SignalName{SIGXFSZ, "SIGXFSZ"}, SignalName{SIGVTALRM, "SIGVTALRM"},
    SignalName{SIGPROF, "SIGPROF"}, SignalName{SIGIO, "SIGIO"},
    SignalName{SIGPWR, "SIGPWR"},   SignalName{SIGSYS, "SIGSYS"},
};

std::string DescribeSignal(int signal) {
    const auto* row = std::find_if(SIGNALS.begin(), SIGNALS.end(),
                                   [signal](const SignalName& s) { return s.signal == signal; });
    const std::string number = std::to_string(signal);
    return row == SIGNALS.end() ? number : number + " (" + row->name + ")";
}

std::string DescribeError(int32_t error) {
    return std::generic_category().message(error) + " (errno " + std::to_string(error) + ")";
}

std::string NoUser(const App::AppFacts& facts) {
    return "the user database does not have user " + std::to_string(facts.uid);
}

}  // namespace

std::string DescribeExit(int32_t status) {
    if (WIFEXITED(status)) {
        return "exited with status " + std::to_string(WEXITSTATUS(status));
    }
    if (WIFSIGNALED(status)) {
        return "killed by signal " + DescribeSignal(WTERMSIG(status)) +
               (WCOREDUMP(status) ? ", core dumped" : "");
    }
    return "ended with wait status " + std::to_string(status);
}

std::string DescribeRefusal(StartRefusal refusal, const App::AppFacts& facts) {
    switch (refusal) {
        case StartRefusal::NONE:
            break;
        case StartRefusal::ARGUMENTS:
            return "its arguments hold characters that are special to a shell";
        case StartRefusal::MISSING:
            return "there is no program " + facts.execPath;
        case StartRefusal::NOT_EXECUTABLE:
            return "user " + std::to_string(facts.uid) + " may not execute " + facts.execPath;
        case StartRefusal::NO_USER:
            return NoUser(facts);
        case StartRefusal::MODIFIED:
            return facts.execPath + " does not have the digest of the hash file";
        case StartRefusal::CORES:
            return "its cores cannot be used";
        case StartRefusal::NO_PROCESS:
            return "the kernel gives no process";
    }
    return "";
}

std::string DescribeChildFault(const ChildFault& fault, const App::AppFacts& facts) {
    const std::string failed = "set-up failed: ";
    switch (fault.step) {
        case ChildFault::Step::NONE:
            break;
        case ChildFault::Step::NO_USER:
            return failed + NoUser(facts);
        case ChildFault::Step::GROUPS:
            return failed + "the groups of user " + std::to_string(facts.uid) + " cannot be used";
        case ChildFault::Step::SETGROUPS:
            return failed + "setgroups: " + DescribeError(fault.error);
        case ChildFault::Step::SETGID:
            return failed + "setgid: " + DescribeError(fault.error);
        case ChildFault::Step::SETUID:
            return failed + "setuid: " + DescribeError(fault.error);
        case ChildFault::Step::EXECUTE:
            return "could not be executed: " + DescribeError(fault.error);
    }
    return "";
}

const char* NameOf(ChangeReason reason) {
    return REASONS.at(static_cast<size_t>(reason));
}

std::string DescribeFault(int32_t event) {
    switch (event) {
        case App::EVENT_HEARTBEAT_LOST:
            return "heartbeat lost";
        case App::EVENT_START_FAILED:
            return "start failed";
        default:
            return "event " + std::to_string(event);
    }
}

}  // namespace ProcMgr::Status
