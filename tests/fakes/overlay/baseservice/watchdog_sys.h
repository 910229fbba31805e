// Found before the daemon's own header of this name: the system calls of the watchdog, which here
// only write down that they were made, or fail on demand. One thread.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace ProcMgr::WatchDogSys {

inline constexpr int FAKE_FD = 12;

struct Recorder {
    std::vector<std::string> calls;
    std::map<std::string, int> failures;  // errno by the name of the call

    static Recorder& Get() {
        static Recorder recorder;
        return recorder;
    }

    // What the call returns.
    int Record(const std::string& name, const std::string& arguments, int result = 0) {
        calls.push_back(name + ' ' + arguments);
        const auto failure = failures.find(name);
        errno = failure == failures.end() ? 0 : failure->second;
        return failure == failures.end() ? result : -1;
    }
};

inline int access(const char* path, int mode) {
    return Recorder::Get().Record("access", path + (' ' + std::to_string(mode)));
}

inline int open(const char* path, int flags) {
    const bool isReadOnly = flags == (O_RDONLY | O_CLOEXEC);
    return Recorder::Get().Record("open", path + std::string(isReadOnly ? "" : " with other flags"),
                                  FAKE_FD);
}

// Leaves an errno of its own, as the real one may.
inline int close(int fd) {
    const int result = Recorder::Get().Record("close", std::to_string(fd));
    errno = EIO;
    return result;
}

inline int ioctl(int fd, unsigned long request, long argument) {
    std::ostringstream text;
    text << fd << std::hex << " 0x" << request << std::dec << ' ' << argument;
    return Recorder::Get().Record("ioctl", text.str());
}

inline long FinitModule(int fd, const char* parameters, int flags) {
    return Recorder::Get().Record(
        "finit_module", std::to_string(fd) + " [" + parameters + "] " + std::to_string(flags));
}

}  // namespace ProcMgr::WatchDogSys
