// The system calls of the watchdog, by their own names; tests put a header of the same name before
// this one on the include path.
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
