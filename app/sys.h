// The system calls of a launch and of the child set-up, under their own names in a namespace. The
// tests of the child set-up put a header of the same name earlier on the include path: it records
// the calls and can make each one fail. Code between fork and execv calls these names only.
#pragma once

#include <grp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace ProcMgr::Sys {

using ::_exit;
using ::close_range;
using ::execv;
using ::fork;
using ::getpid;
using ::getrlimit;
using ::nice;
using ::prlimit;
using ::pthread_sigmask;
using ::sched_setscheduler;
using ::sched_yield;
using ::setenv;
using ::setgid;
using ::setgroups;
using ::setsid;
using ::setuid;
using ::sigaction;
using ::write;

}  // namespace ProcMgr::Sys
