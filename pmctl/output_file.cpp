#include "pmctl/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include "wire/unique_fd.h"

namespace ProcMgr::Pmctl {
namespace {

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

[[noreturn]] void Fail(const std::string& path, int error) {
    throw CommandError(EXIT_NO, "cannot write " + path + ": " + strerror(error));
}

// Links to the descriptors of this process, also to those that the shell passes on.
bool IsOwnDescriptor(const std::string& path) {
    return path == "/dev/stdout" || path == "/dev/stderr" || path.starts_with("/dev/fd/") ||
           path.starts_with("/proc/self/fd/");
}

bool IsSpecial(mode_t mode) {
    return !S_ISREG(mode) && !S_ISLNK(mode);
}

// A device or a pipe is written in its place; any other link than one to an own descriptor is
// replaced, as a file is. Nothing is made or emptied, and what has been opened is looked at,
// because in a directory of others something else may have taken the place since the first look.
// False for what is to be replaced.
bool WriteInPlace(const std::string& path, std::string_view text) {
    const bool isOwn = IsOwnDescriptor(path);
    struct stat info {};
    if (!isOwn && (lstat(path.c_str(), &info) != 0 || !IsSpecial(info.st_mode))) {
        return false;
    }
    const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | (isOwn ? 0 : O_NOFOLLOW);
    const Wire::UniqueFd file(open(path.c_str(), flags));
    if (!file.IsValid() || fstat(file.Get(), &info) != 0) {
        Fail(path, errno);
    }
    if (!isOwn && !IsSpecial(info.st_mode)) {
        Fail(path, EEXIST);
    }
    if (!WriteAll(file.Get(), text)) {
        Fail(path, errno);
    }
    return true;
}

mode_t ModeOfNewFiles() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

void WriteOutput(const Context& context, const std::string& path, std::string_view text) {
    if (path == "-") {
        context.out << text;
        return;
    }
    if (WriteInPlace(path, text)) {
        return;
    }
    std::string beside = path + ".XXXXXX";
    const Wire::UniqueFd file(mkostemp(beside.data(), O_CLOEXEC));
    if (!file.IsValid()) {
        Fail(path, errno);
    }
    const bool isDone = WriteAll(file.Get(), text) && fchmod(file.Get(), ModeOfNewFiles()) == 0 &&
                        rename(beside.c_str(), path.c_str()) == 0;
    if (!isDone) {
        const int error = errno;
        unlink(beside.c_str());
        Fail(path, error);
    }
}

}  // namespace ProcMgr::Pmctl
