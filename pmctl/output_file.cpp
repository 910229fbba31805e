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

// A device or a pipe, such as /dev/stdout, is written in its place.
bool IsSpecial(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
}

void WriteInPlace(const std::string& path, std::string_view text) {
    std::FILE* file = std::fopen(path.c_str(), "we");
    if (file == nullptr) {
        Fail(path, errno);
    }
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const int error = errno;
    if (std::fclose(file) != 0 || !isWritten) {
        Fail(path, isWritten ? errno : error);
    }
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
    if (IsSpecial(path)) {
        WriteInPlace(path, text);
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
