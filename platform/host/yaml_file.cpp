#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <system_error>

#include "platform/host/yaml_tree.h"

namespace ProcMgr {
namespace {

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return fd_; }

private:
    int fd_;
};

std::string ErrorText(const char* what, int code) {
    return std::string(what) + ": " + std::generic_category().message(code);
}

// Empty when a file with this status may be used.
std::string Refusal(const struct stat& status, FileTrust trust) {
    if (S_ISDIR(status.st_mode)) {
        return "it is a directory";
    }
    if (!S_ISREG(status.st_mode)) {
        return "it is not a regular file";
    }
    if (status.st_size > static_cast<off_t>(MAX_YAML_FILE)) {
        return "it is larger than " + std::to_string(MAX_YAML_FILE) + " bytes";
    }
    if (trust == FileTrust::ANY) {
        return {};
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return "it belongs to uid " + std::to_string(status.st_uid) + " and not to root";
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "it is writable by group or others";
    }
    return {};
}

// The file may grow while it is read, so the limit holds for what is read, not for its status.
std::string ReadAll(int fd, std::string& text) {
    while (text.size() <= MAX_YAML_FILE) {
        constexpr size_t CHUNK = 16384;
        const size_t before = text.size();
        text.resize(before + CHUNK);
        const ssize_t got = read(fd, text.data() + before, CHUNK);
        const int error = errno;
        text.resize(before + static_cast<size_t>(got > 0 ? got : 0));
        if (got == 0) {
            return {};
        }
        if (got < 0 && error != EINTR) {
            return ErrorText("cannot be read", error);
        }
    }
    return "it is larger than " + std::to_string(MAX_YAML_FILE) + " bytes";
}

std::string RealPath(const std::string& path) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) {
        return path;
    }
    std::string result = resolved;
    free(resolved);
    return result;
}

}  // namespace

YamlFile ReadYamlFile(const std::string& path, FileTrust trust) {
    YamlFile file;
    // Only found, not opened: of a device, to be opened alone may have an effect.
    const Descriptor found(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (found.Get() < 0) {
        file.error = ErrorText("cannot be opened", errno);
        return file;
    }
    struct stat status {};
    if (fstat(found.Get(), &status) != 0) {
        file.error = ErrorText("cannot be examined", errno);
        return file;
    }
    file.error = Refusal(status, trust);
    if (!file.error.empty()) {
        return file;
    }
    const std::string same = "/proc/self/fd/" + std::to_string(found.Get());
    const Descriptor descriptor(open(same.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (descriptor.Get() < 0) {
        file.error = ErrorText("cannot be opened", errno);
        return file;
    }
    file.text.reserve(static_cast<size_t>(status.st_size) + 1);
    file.error = ReadAll(descriptor.Get(), file.text);
    if (file.error.empty()) {
        file.realPath = RealPath(path);
    }
    return file;
}

}  // namespace ProcMgr
