// The system calls of launch and child set-up for a program that is compiled with fakes/overlay
// before the source root: records their order and makes any of them fail. One thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace ProcMgr::Fakes {

// How the child's part of a launch ends here, where no program is executed and nothing exits.
struct ChildExecuted {};
struct ChildExited {
    int status = 0;
};

class FakeSys {
public:
    static constexpr pid_t OWN_PID = 4711;

    static FakeSys& Get();
    void Reset();

    // From now on a call whose record begins with `record` fails with `error`.
    void Fail(const std::string& record, int error);
    // What fork() returns: 0 goes on as the child, -1 fails with `error`.
    void SetFork(pid_t result, int error = 0);

    // In order: "getpid", "getrlimit 14", "prlimit 14 99 99", "sched_setscheduler 4711 1 50",
    // "nice 5", "setgroups 1,2", "setgid 7", "setsid", "setuid 8", "setenv NAME=VALUE",
    // "ZornInitProc NAME PATH", "write FD TEXT", "execv PATH|ARGV0|ARGV1", "_exit 1", "fork",
    // "sigaction 13 default", "pthread_sigmask 2 EMPTY", "join PATH 4711", "sched_setaffinity 4711
    // COUNT".
    std::vector<std::string> Calls() const { return calls_; }
    // Without the calls that deal with signals and descriptors.
    std::vector<std::string> StepCalls() const;

    // Writes a call down. Returns false, with errno set, when it is to fail.
    bool Record(const std::string& record);
    pid_t ForkResult() const { return fork_.first; }
    int ForkError() const { return fork_.second; }

private:
    std::vector<std::string> calls_;
    std::vector<std::pair<std::string, int>> failures_;
    std::pair<pid_t, int> fork_{0, 0};
};

}  // namespace ProcMgr::Fakes
