// Included in place of the daemon's header of this name: the system calls of launch and child
// set-up, which only record their call in FakeSys, or fail on demand.
#pragma once

#include <sched.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <string>
#include <tuple>

#include "tests/fakes/fake_sys.h"

namespace ProcMgr {

class Sys {
    using FakeSys = Fakes::FakeSys;

    static int Result(const std::string& record) { return FakeSys::Get().Record(record) ? 0 : -1; }
    static std::string Number(long long value) { return ' ' + std::to_string(value); }
    static std::string Describe(const sigset_t* set) {
        if (set == nullptr) {
            return " NONE";
        }
        return sigisemptyset(set) == 1 ? " EMPTY" : " SET";
    }

public:
    [[noreturn]] static void _exit(int status) {
        FakeSys::Get().Record("_exit" + Number(status));
        throw Fakes::ChildExited{status};
    }
    static int execve(const char* path, char* const* arguments, char* const* variables) {
        std::string record = std::string("execve ") + path;
        for (; *arguments != nullptr; ++arguments) {
            record += std::string("|") + *arguments;
        }
        for (; *variables != nullptr; ++variables) {
            record += std::string(" ") + *variables;
        }
        if (!FakeSys::Get().Record(record)) {
            return -1;
        }
        throw Fakes::ChildExecuted{};
    }
    static pid_t fork() {
        FakeSys::Get().Record("fork");
        errno = FakeSys::Get().Fork().second;
        return FakeSys::Get().Fork().first;
    }
    static pid_t getpid() {
        FakeSys::Get().Record("getpid");
        return FakeSys::OWN_PID;
    }
    static int getresgid(gid_t* real, gid_t* effective, gid_t* saved) {
        std::tie(*real, *effective, *saved) = FakeSys::Get().Ids();
        return 0;
    }
    static int getresuid(uid_t* real, uid_t* effective, uid_t* saved) {
        return getresgid(real, effective, saved);
    }
    static int getrlimit(int resource, struct rlimit* limit) {
        *limit = {};
        return Result("getrlimit" + Number(resource));
    }
    static int close_range(unsigned first, unsigned last, int flags) {
        return Result("close_range" + Number(first) + Number(last) + Number(flags));
    }
    static void Sleep(const timespec& /*duration*/) { FakeSys::Get().Record("sleep"); }
    static int dup2(int fd, int stream) { return Result("dup2" + Number(fd) + Number(stream)); }
    static int nice(int increment) { return Result("nice" + Number(increment)); }
    static int prlimit(pid_t /*pid*/, int resource, const struct rlimit* newLimit,
                       struct rlimit* /*oldLimit*/) {
        return Result("prlimit" + Number(resource) +
                      Number(static_cast<long long>(newLimit->rlim_cur)) +
                      Number(static_cast<long long>(newLimit->rlim_max)));
    }
    static int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
        if (old != nullptr) {
            sigemptyset(old);
        }
        return Result("pthread_sigmask" + Number(how) + Describe(set));
    }
    static int sched_setscheduler(pid_t pid, int policy, const struct sched_param* param) {
        return Result("sched_setscheduler" + Number(pid) + Number(policy) +
                      Number(param->sched_priority));
    }
    static char**& Variables() {
        static char** variables = nullptr;
        return variables;
    }
    static int setgid(gid_t gid) { return Result("setgid" + Number(gid)); }
    static int setgroups(size_t count, const gid_t* groups) {
        std::string list;
        for (size_t i = 0; i < count; ++i) {
            list += (i == 0 ? "" : ",") + std::to_string(groups[i]);
        }
        return Result("setgroups " + list);
    }
    static pid_t setsid() { return Result("setsid"); }
    static int setuid(uid_t uid) { return Result("setuid" + Number(uid)); }
    static int sigaction(int signal, const struct ::sigaction* action, struct ::sigaction* old) {
        if (old != nullptr) {
            *old = {};
            old->sa_handler = signal == FakeSys::SIGNAL_OF_LIBRARY ? [](int) {} : SIG_DFL;
        }
        const bool isDefault = action != nullptr && action->sa_handler == SIG_DFL;
        return Result("sigaction" + Number(signal) + (isDefault ? " default" : ""));
    }
    static ssize_t write(int fd, const void* data, size_t count) {
        const std::string text(static_cast<const char*>(data), count);
        return FakeSys::Get().Record("write" + Number(fd) + ' ' + text)
                   ? static_cast<ssize_t>(count)
                   : -1;
    }
};

}  // namespace ProcMgr
