// The system calls of launch and child set-up for a program that is compiled with fakes/overlay
// before the source root: records their order and makes any of them fail. One thread.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/fakes/recorder.h"

namespace ProcMgr::Fakes {

// Thrown by the faked execve() and _exit(), which end the child's part of a launch.
struct ChildExecuted {};
struct ChildExited {
    int status = 0;
};

// Calls() yields, in order: "getpid", "getrlimit 14", "prlimit 14 99 99", "sched_setscheduler 4711
// 1 50", "nice 5", "setgroups 1,2", "setgid 7", "setsid", "setuid 8", "setenv NAME=VALUE",
// "ZornInitProc NAME PATH", "write FD TEXT", "execve PATH|ARGV0|ARGV1", "_exit 1", "fork",
// "sigaction 13 default", "pthread_sigmask 2 EMPTY", "join PATH 4711", "sched_setaffinity 4711
// COUNT", "dup2 7 1".
class FakeSys : public FailingCalls {
public:
    static constexpr pid_t OWN_PID = 4711;
    // The daemon has a handler of a library for this signal, and no handler of its own.
    static constexpr int SIGNAL_OF_LIBRARY = SIGUSR2;

    static FakeSys& Get() {
        static FakeSys fake;
        return fake;
    }
    void Reset() { *this = FakeSys(); }

    // The result of fork(): 0 continues as the child, -1 fails with `error`.
    void SetFork(pid_t result, int error = 0) { fork_ = {result, error}; }
    std::pair<pid_t, int> Fork() const { return fork_; }

    // The real, effective and saved ids, of the user and of the group.
    using ThreeIds = std::tuple<uid_t, uid_t, uid_t>;
    void SetIds(const ThreeIds& ids) { ids_ = ids; }
    const ThreeIds& Ids() const { return ids_; }

    // Calls() without the calls that deal with signals and descriptors.
    std::vector<std::string> StepCalls() const;

private:
    std::pair<pid_t, int> fork_{0, 0};
    ThreeIds ids_{0, 0, 0};
};

}  // namespace ProcMgr::Fakes
