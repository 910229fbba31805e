// Included in place of the daemon's header of this name: the system calls of launch and child
// set-up, which only record their call in FakeSys, or fail on demand.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <csignal>
#include <cstddef>

struct sched_param;

namespace ProcMgr::Sys {

[[noreturn]] void _exit(int status);
int close_range(unsigned first, unsigned last, int flags);
int execv(const char* path, char* const* arguments);
pid_t fork();
pid_t getpid();
int getrlimit(int resource, struct rlimit* limit);
int nice(int increment);
int prlimit(pid_t pid, int resource, const struct rlimit* newLimit, struct rlimit* oldLimit);
int pthread_sigmask(int how, const sigset_t* set, sigset_t* old);
int sched_setscheduler(pid_t pid, int policy, const struct sched_param* param);
int sched_yield();
int setenv(const char* name, const char* value, int overwrite);
int setgid(gid_t gid);
int setgroups(size_t count, const gid_t* groups);
pid_t setsid();
int setuid(uid_t uid);
int sigaction(int signal, const struct ::sigaction* action, struct ::sigaction* old);
ssize_t write(int fd, const void* data, size_t count);

}  // namespace ProcMgr::Sys
