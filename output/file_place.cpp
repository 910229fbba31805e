#include "output/file_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <utility>

namespace ProcMgr::Output {
namespace {

constexpr int FLAGS = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// The most symbolic links in one path.
constexpr int LINKS_MAX = 16;

bool IsRootsAlone(int directory) {
    struct stat status {};
    return fstat(directory, &status) == 0 && (status.st_uid == 0 || status.st_uid == geteuid()) &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The way to a directory. After a failure errno has the reason.
class Walk {
public:
    explicit Walk(std::string path) : rest_(std::move(path)) {}

    bool Run() {
        bool isDone = Restart();
        while (isDone && !rest_.empty()) {
            isDone = Enter(TakeName());
        }
        return isDone;
    }
    Wire::UniqueFd TakeDirectory() { return std::move(directory_); }

private:
    bool Restart() {
        directory_ = Wire::UniqueFd(open("/", FLAGS));
        isTrusted_ = directory_.IsValid() && IsRootsAlone(directory_.Get());
        return directory_.IsValid();
    }
    // The next name; empty between two slashes.
    std::string TakeName() {
        const size_t end = rest_.find('/');
        std::string name = rest_.substr(0, end);
        rest_.erase(0, end == std::string::npos ? end : end + 1);
        return name;
    }
    bool Enter(const std::string& name) {
        if (name.empty()) {
            return true;
        }
        if (name == ".." && !isTrusted_) {
            errno = ELOOP;
            return false;
        }
        Wire::UniqueFd next(openat(directory_.Get(), name.c_str(), FLAGS));
        if (!next.IsValid()) {
            return (errno == ENOTDIR || errno == ELOOP) && Follow(name);
        }
        directory_ = std::move(next);
        isTrusted_ = isTrusted_ && IsRootsAlone(directory_.Get());
        return true;
    }
    bool Follow(const std::string& name) {
        std::array<char, PATH_MAX> target{};
        const ssize_t size =
            readlinkat(directory_.Get(), name.c_str(), target.data(), target.size());
        if (size < 0) {
            errno = errno == EINVAL ? ENOTDIR : errno;  // EINVAL: no link
            return false;
        }
        if (!isTrusted_ || ++links_ > LINKS_MAX) {
            errno = ELOOP;
            return false;
        }
        const std::string_view text(target.data(), static_cast<size_t>(size));
        rest_ = std::string(text) + "/" + rest_;
        return !text.starts_with('/') || Restart();
    }

    std::string rest_;  // the names that are still to be entered
    Wire::UniqueFd directory_;
    bool isTrusted_ = false;  // this directory and all above are root's alone
    int links_ = 0;
};

}  // namespace

FilePlace FindPlace(const std::string& path) {
    FilePlace place;
    if (!path.starts_with('/')) {
        place.failure = "not an absolute path";
        place.error = EINVAL;
        return place;
    }
    const size_t end = path.rfind('/');
    place.name = path.substr(end + 1);
    Walk walk(path.substr(0, end));
    if (walk.Run()) {
        place.directory = walk.TakeDirectory();
    } else {
        place.error = errno;
        place.failure =
            errno == ELOOP ? "a symbolic link of the path is not trusted" : "open failed";
    }
    return place;
}

}  // namespace ProcMgr::Output
