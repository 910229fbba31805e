#include "main/system.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>

#include "main/constants.h"

namespace ProcMgr {

static_assert(PATH_MAX <= PATH_LENGTH_MAX + 1, "realpath may write PATH_MAX bytes");

void SleepFor(std::chrono::nanoseconds duration) {
    constexpr int64_t NANOSECONDS = 1'000'000'000;
    timespec rest{.tv_sec = duration.count() / NANOSECONDS,
                  .tv_nsec = duration.count() % NANOSECONDS};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

bool StandardizationPath(const std::string& in, std::string& out) {
    if (in.size() > PATH_LENGTH_MAX) {
        return false;
    }
    std::array<char, PATH_LENGTH_MAX + 1> resolved{};
    if (realpath(in.c_str(), resolved.data()) == nullptr) {
        return false;
    }
    out = resolved.data();
    return true;
}

bool IsRootsAlone(const std::string& path) {
    struct stat file {};
    // Of a device, to be opened alone may have an effect.
    return stat(path.c_str(), &file) == 0 && (S_ISREG(file.st_mode) || S_ISDIR(file.st_mode)) &&
           file.st_uid == 0 && (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace ProcMgr
