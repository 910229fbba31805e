#include "main/common/paths.h"

#include <sys/stat.h>

#include <array>
#include <climits>
#include <cstdlib>

namespace ProcMgr {
namespace {

// The longest path that is accepted, in characters.
constexpr size_t PATH_LENGTH_MAX = 4096;
static_assert(PATH_MAX <= PATH_LENGTH_MAX + 1, "realpath may write PATH_MAX bytes");

}  // namespace

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
    // A device is refused, because opening it may have an effect.
    return stat(path.c_str(), &file) == 0 && (S_ISREG(file.st_mode) || S_ISDIR(file.st_mode)) &&
           file.st_uid == 0 && (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace ProcMgr
