#include "tests/fakes/fake_sys.h"

#include <sched.h>

#include <cerrno>

#include "resource/task_file.h"
#include "tests/fakes/overlay/app/sys.h"

namespace ProcMgr::Fakes {

std::vector<std::string> FakeSys::StepCalls() const {
    auto calls = Calls();
    std::erase_if(calls, [](const std::string& call) {
        return call.starts_with("sigaction") || call.starts_with("pthread_sigmask") ||
               call.starts_with("close_range");
    });
    return calls;
}

}  // namespace ProcMgr::Fakes

namespace ProcMgr::Sys {

namespace {

using Fakes::FakeSys;

int Result(const std::string& record) {
    return FakeSys::Get().Record(record) ? 0 : -1;
}

std::string Number(long long value) {
    return ' ' + std::to_string(value);
}

std::string Describe(const sigset_t* set) {
    if (set == nullptr) {
        return " NONE";
    }
    int count = 0;
    for (int signal = 1; signal < NSIG; ++signal) {
        count += sigismember(set, signal) == 1 ? 1 : 0;
    }
    return count == 0 ? " EMPTY" : Number(count);
}

}  // namespace

void _exit(int status) {
    FakeSys::Get().Record("_exit" + Number(status));
    throw Fakes::ChildExited{status};
}

int execv(const char* path, char* const* arguments) {
    std::string record = std::string("execv ") + path;
    for (; *arguments != nullptr; ++arguments) {
        record += std::string("|") + *arguments;
    }
    if (!FakeSys::Get().Record(record)) {
        return -1;
    }
    throw Fakes::ChildExecuted{};
}

pid_t fork() {
    FakeSys::Get().Record("fork");
    errno = FakeSys::Get().Fork().second;
    return FakeSys::Get().Fork().first;
}

pid_t getpid() {
    FakeSys::Get().Record("getpid");
    return FakeSys::OWN_PID;
}

int getrlimit(int resource, struct rlimit* limit) {
    *limit = {};
    return Result("getrlimit" + Number(resource));
}

int close_range(unsigned first, unsigned last, int flags) {
    return Result("close_range" + Number(first) + Number(last) + Number(flags));
}

int sched_yield() {
    return 0;
}

int nice(int increment) {
    return Result("nice" + Number(increment));
}

int prlimit(pid_t /*pid*/, int resource, const struct rlimit* newLimit,
            struct rlimit* /*oldLimit*/) {
    return Result("prlimit" + Number(resource) +
                  Number(static_cast<long long>(newLimit->rlim_cur)) +
                  Number(static_cast<long long>(newLimit->rlim_max)));
}

int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
    if (old != nullptr) {
        sigemptyset(old);
    }
    return Result("pthread_sigmask" + Number(how) + Describe(set));
}

int sched_setscheduler(pid_t pid, int policy, const struct sched_param* param) {
    return Result("sched_setscheduler" + Number(pid) + Number(policy) +
                  Number(param->sched_priority));
}

int setenv(const char* name, const char* value, int overwrite) {
    return Result(std::string(overwrite != 0 ? "setenv " : "setenv-keep ") + name + '=' + value);
}

int setgid(gid_t gid) {
    return Result("setgid" + Number(gid));
}

int setgroups(size_t count, const gid_t* groups) {
    std::string list;
    for (size_t i = 0; i < count; ++i) {
        list += (i == 0 ? "" : ",") + std::to_string(groups[i]);
    }
    return Result("setgroups " + list);
}

pid_t setsid() {
    return Result("setsid");
}

int setuid(uid_t uid) {
    return Result("setuid" + Number(uid));
}

int sigaction(int signal, const struct ::sigaction* action, struct ::sigaction* /*old*/) {
    const bool isDefault = action != nullptr && action->sa_handler == SIG_DFL;
    return Result("sigaction" + Number(signal) + (isDefault ? " default" : ""));
}

ssize_t write(int fd, const void* data, size_t count) {
    const std::string text(static_cast<const char*>(data), count);
    return FakeSys::Get().Record("write" + Number(fd) + ' ' + text) ? static_cast<ssize_t>(count)
                                                                    : -1;
}

}  // namespace ProcMgr::Sys

namespace ProcMgr {

bool AppendTid(const std::string& path, int32_t tid) {
    return Fakes::FakeSys::Get().Record("join " + path + ' ' + std::to_string(tid));
}

bool AppendTidToAll(const std::vector<std::string>& paths, int32_t tid, std::string& error) {
    bool isComplete = true;
    for (const std::string& path : paths) {
        if (!AppendTid(path, tid)) {
            error += "not joined " + path + ";";
            isComplete = false;
        }
    }
    return isComplete;
}

}  // namespace ProcMgr

// Replaces the C library's function.
extern "C" int sched_setaffinity(pid_t pid, size_t /*size*/, const cpu_set_t* cores) noexcept {
    const std::string record =
        "sched_setaffinity " + std::to_string(pid) + ' ' + std::to_string(CPU_COUNT(cores));
    return ProcMgr::Fakes::FakeSys::Get().Record(record) ? 0 : -1;
}
