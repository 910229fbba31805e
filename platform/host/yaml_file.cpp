#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "platform/host/yaml_tree.h"
#include "wire/root_file.h"

namespace ProcMgr {
namespace {

std::string ErrorText(const char* what, int code) {
    return std::string(what) + ": " + std::generic_category().message(code);
}

// Any regular file. Nothing but its kind is known, so that the path may be exchanged meanwhile: the
// opening never waits.
Wire::RootFile OpenAnyFile(const std::string& path) {
    Wire::RootFile file;
    struct stat status {};
    // Before the opening, which of a device may have an effect.
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        file.error = S_ISDIR(status.st_mode) ? "it is a directory" : "it is not a regular file";
        return file;
    }
    file.fd = Wire::UniqueFd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.fd.IsValid() || fstat(file.fd.Get(), &status) != 0) {
        file.error = ErrorText("cannot be opened", errno);
    } else if (!S_ISREG(status.st_mode)) {
        file.error = "it is not a regular file";
    }
    file.realPath = path;
    return file;
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

}  // namespace

YamlFile ReadYamlFile(const std::string& path, FileTrust trust) {
    Wire::RootFile opened =
        trust == FileTrust::OWNER_ONLY ? Wire::OpenRootFile(path) : OpenAnyFile(path);
    YamlFile file;
    file.realPath = std::move(opened.realPath);
    file.error = std::move(opened.error);
    if (file.error.empty()) {
        file.error = ReadAll(opened.fd.Get(), file.text);
    }
    return file;
}

}  // namespace ProcMgr
