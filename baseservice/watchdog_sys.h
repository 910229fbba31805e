// The system calls that watchdog.cpp makes. All of them are named here, so that another header of
// this name, found earlier on the include path, can replace them.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ProcMgr::WatchDogSys {

using ::access;
using ::close;
using ::ioctl;
using ::open;

inline long FinitModule(int fd, const char* parameters, int flags) {
    return ::syscall(SYS_finit_module, fd, parameters, flags);
}

}  // namespace ProcMgr::WatchDogSys
