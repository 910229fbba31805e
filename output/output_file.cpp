#include "output/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "main/common/mutex.h"
#include "output/file_place.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Output {
namespace {

// A smaller limit of a platform library is raised to this, so that every line fits into a new file.
constexpr uint64_t SIZE_MIN = uint64_t{4} << 10;
constexpr mode_t MODE = 0640;
constexpr int OPEN_FLAGS =
    O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

struct OpenFile {
    Wire::UniqueFd fd;
    uint64_t size = 0;
    const char* failure = nullptr;
    int error = 0;
};

OpenFile Failed(const char* failure, int error) {
    OpenFile file;
    file.failure = failure;
    file.error = error;
    return file;
}

// A device is not opened, because that may have an effect: it is examined before.
OpenFile Open(const FilePlace& place, int moreFlags = 0) {
    const int directory = place.directory.Get();
    const char* name = place.name.c_str();
    struct stat status {};
    if (place.failure != nullptr) {
        return Failed(place.failure, place.error);
    }
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(status.st_mode)) {
        return Failed("not a regular file", EINVAL);
    }
    OpenFile file;
    file.fd = Wire::UniqueFd(openat(directory, name, OPEN_FLAGS | moreFlags, MODE));
    if (!file.fd.IsValid() || fstat(file.fd.Get(), &status) != 0) {
        return Failed("open failed", errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Failed("not a regular file", EINVAL);
    }
    // Another name may have been given to it by whoever may write to a directory.
    if (status.st_nlink > 1) {
        return Failed("the file has further names", EMLINK);
    }
    file.size = static_cast<uint64_t>(status.st_size);
    return file;
}

OpenFile Rotate(const FilePlace& place) {
    const int directory = place.directory.Get();
    const std::string older = place.name + ".1";
    if (renameat(directory, place.name.c_str(), directory, older.c_str()) != 0) {
        return Failed("rename failed", errno);
    }
    return Open(place, O_EXCL);
}

// The length of the lines at the beginning of `lines` that fit into `room`.
size_t FittingLines(std::string_view lines, uint64_t room) {
    if (lines.size() <= room) {
        return lines.size();
    }
    const size_t end = room == 0 ? std::string_view::npos : lines.rfind('\n', room - 1);
    return end == std::string_view::npos ? 0 : end + 1;
}

// Writes to the end of the file. Returns the length of the whole lines that have been written; a
// part of a line, which a full file system may leave, is removed.
size_t Write(OpenFile& file, std::string_view lines) {
    size_t written = 0;
    while (written < lines.size()) {
        const ssize_t size = write(file.fd.Get(), lines.data() + written, lines.size() - written);
        if (size < 0 && errno != EINTR) {
            file.failure = "write failed";
            file.error = errno;
            break;
        }
        written += static_cast<size_t>(std::max<ssize_t>(size, 0));
    }
    const size_t whole = FittingLines(lines, written);
    if (whole < written) {
        [[maybe_unused]] const int cut =
            ftruncate(file.fd.Get(), static_cast<off_t>(file.size + whole));
    }
    file.size += whole;
    return whole;
}

}  // namespace

AppendResult AppendToFile(const std::string& path, uint64_t size, std::string_view lines) {
    MayWait("the file of the output of a service");
    const uint64_t limit = std::max(size, SIZE_MIN);
    AppendResult result;
    const FilePlace place = FindPlace(path);
    OpenFile file = Open(place);
    while (file.failure == nullptr && result.written < lines.size()) {
        const std::string_view rest = lines.substr(result.written);
        const size_t fitting = FittingLines(rest, limit - std::min(file.size, limit));
        if (fitting == 0) {
            file = Rotate(place);
        } else {
            result.written += Write(file, rest.substr(0, fitting));
        }
    }
    result.failure = file.failure;
    result.error = file.error;
    return result;
}

}  // namespace ProcMgr::Output
