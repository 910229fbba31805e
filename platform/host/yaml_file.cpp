#include "platform/host/yaml_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "wire/root_file.h"

namespace PlatformHost {
namespace {

std::string ErrorText(const char* what, int code) {
    return std::string(what) + ": " + std::generic_category().message(code);
}

// Opens any regular file. Another file may be put at the path between the check and open(), so
// open() must not wait either.
Wire::RootFile OpenAnyFile(const std::string& path) {
    Wire::RootFile file;
    struct stat status {};
    // The type is checked before open() too: opening a device can have an effect on it.
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

// Appends the contents of `fd` to `text`; returns the error, empty on success. The limit applies to
// the bytes read and not to the size in the file's status: the file may grow meanwhile.
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

}  // namespace PlatformHost
