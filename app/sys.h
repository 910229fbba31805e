// The system calls of a launch and of the child set-up, under their own names in a namespace. The
// tests of the child set-up put a header of the same name earlier on the include path: it records
// the calls and can make each one fail. Code between fork and execv calls these names only.
#pragma once

#include <grp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

namespace ProcMgr::Sys {

using ::_exit;
using ::close_range;
using ::dup2;
using ::execve;
using ::fork;
using ::getpid;
using ::getresgid;
using ::getresuid;
using ::getrlimit;
using ::nice;
using ::prlimit;
using ::pthread_sigmask;
using ::sched_setscheduler;
using ::setsid;
using ::sigaction;
using ::write;

// The C library's functions of these names change every thread of the process, which it finds in
// memory that a child may share with the daemon. These change the calling thread, the only one of
// the child.
#if defined(SYS_setuid32)
inline constexpr long SETGID = SYS_setgid32;
inline constexpr long SETGROUPS = SYS_setgroups32;
inline constexpr long SETUID = SYS_setuid32;
#else
inline constexpr long SETGID = SYS_setgid;
inline constexpr long SETGROUPS = SYS_setgroups;
inline constexpr long SETUID = SYS_setuid;
#endif
inline int setgid(gid_t gid) {
    return static_cast<int>(::syscall(SETGID, gid));
}
inline int setgroups(size_t count, const gid_t* groups) {
    return static_cast<int>(::syscall(SETGROUPS, count, groups));
}
inline int setuid(uid_t uid) {
    return static_cast<int>(::syscall(SETUID, uid));
}

// Suspends the calling thread. The C library's functions look for a cancellation of the thread
// whose storage a child uses.
inline void Sleep(const timespec& duration) {
    ::syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &duration, nullptr);
}

// The C library's variable for the environment.
inline char**& Variables() {
    return environ;
}

}  // namespace ProcMgr::Sys
