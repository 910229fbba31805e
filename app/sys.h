// The system calls of launch and child set-up, by their own names. A test that puts a header of
// the same name before this one on the include path records their order and makes each one fail.
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
