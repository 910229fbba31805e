// Included in place of the daemon's header of this name: the system calls of watchdog.cpp. Each
// function records "NAME ARGUMENTS" and does nothing else, or fails when the test demands it. For
// use on one thread.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <sstream>
#include <string>

#include "tests/fakes/recorder.h"

namespace ProcMgr::WatchDogSys {

inline constexpr int FAKE_FD = 12;

inline Fakes::FailingCalls& Calls() {
    static Fakes::FailingCalls calls;
    return calls;
}

// The result of the call; errno is 0 unless it fails.
inline int Result(const std::string& line, int result = 0) {
    errno = 0;
    return Calls().Record(line) ? result : -1;
}

inline int access(const char* path, int mode) {
    return Result(std::string("access ") + path + ' ' + std::to_string(mode));
}

inline int open(const char* path, int flags) {
    const bool isReadOnly = flags == (O_RDONLY | O_CLOEXEC);
    return Result(std::string("open ") + path + (isReadOnly ? "" : " with other flags"), FAKE_FD);
}

// Changes errno also when it succeeds, which the real call may do.
inline int close(int fd) {
    const int result = Result("close " + std::to_string(fd));
    errno = EIO;
    return result;
}

inline int ioctl(int fd, unsigned long request, long argument) {
    std::ostringstream line;
    line << "ioctl " << fd << std::hex << " 0x" << request << std::dec << ' ' << argument;
    return Result(line.str());
}

inline long FinitModule(int fd, const char* parameters, int flags) {
    return Result("finit_module " + std::to_string(fd) + " [" + parameters + "] " +
                  std::to_string(flags));
}

}  // namespace ProcMgr::WatchDogSys
