#include "pmctl/image.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <deque>
#include <memory>
#include <utility>

namespace ProcMgr::Pmctl {
namespace {

constexpr int LINKS_MAX = 40;      // as the kernel
constexpr size_t STEPS_MAX = 256;  // directories of one path

// The parts of a path between its slashes.
std::deque<std::string> PartsOf(const std::string& path) {
    std::deque<std::string> parts;
    size_t begin = 0;
    while (begin < path.size()) {
        const size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin) {
            parts.push_back(path.substr(begin, end - begin));
        }
        begin = end + 1;
    }
    return parts;
}

std::string ParentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string ReadLink(const std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return length > 0 ? std::string(target.data(), static_cast<size_t>(length)) : std::string();
}

// The state of one walk.
class Walker {
public:
    Walker(const std::string& root, const std::string& path) : root_(root), left_(PartsOf(path)) {
        Enter("/");
    }

    Image::Walk Run() {
        while (walk_.error == 0 && !left_.empty()) {
            std::string part = std::move(left_.front());
            left_.pop_front();
            if (part == "..") {
                at_ = ParentOf(at_);
            } else if (part != ".") {
                Take((at_ == "/" ? at_ : at_ + '/') + part);
            }
        }
        if (walk_.error == 0 && walk_.file.path.empty()) {
            walk_.file = walk_.folders.back();  // the path leads to a directory
        }
        walk_.hostPath = root_ + walk_.file.path;
        return std::move(walk_);
    }

private:
    void Fail(int error, const std::string& path) {
        walk_.error = error;
        walk_.failed = path;
    }

    void Enter(const std::string& path) {
        struct stat status {};
        if (lstat((root_ + path).c_str(), &status) != 0) {
            Fail(errno, path);
            return;
        }
        at_ = path;
        walk_.folders.push_back({path, status});
    }

    // One step to `path`, a link, a directory or the end of the walk.
    void Take(const std::string& path) {
        struct stat status {};
        if (++steps_ > STEPS_MAX || lstat((root_ + path).c_str(), &status) != 0) {
            Fail(steps_ > STEPS_MAX ? ENAMETOOLONG : errno, path);
        } else if (S_ISLNK(status.st_mode)) {
            FollowLink(path);
        } else if (S_ISDIR(status.st_mode)) {
            at_ = path;
            walk_.folders.push_back({path, status});
        } else if (!left_.empty()) {
            Fail(ENOTDIR, path);
        } else {
            walk_.file = {path, status};
        }
    }

    void FollowLink(const std::string& path) {
        const std::string target = ReadLink(root_ + path);
        if (++links_ > LINKS_MAX || target.empty()) {
            Fail(links_ > LINKS_MAX ? ELOOP : EACCES, path);
            return;
        }
        std::deque<std::string> parts = PartsOf(target);
        left_.insert(left_.begin(), parts.begin(), parts.end());
        if (target.front() == '/') {
            at_ = "/";
        }
    }

    const std::string& root_;
    std::deque<std::string> left_;  // the parts that have not been looked at
    std::string at_ = "/";          // the directory that the next part is in
    Image::Walk walk_;
    int links_ = 0;
    size_t steps_ = 0;
};

}  // namespace

Image::Image(std::string root) : root_(std::move(root)) {
    while (!root_.empty() && root_.back() == '/') {
        root_.pop_back();
    }
}

std::string Image::HostPath(const std::string& path) const {
    const bool isInside = path.starts_with(root_ + '/') || path == root_;
    return IsHere() || isInside || !path.starts_with('/') ? path : root_ + path;
}

Image::Walk Image::Follow(const std::string& path) const {
    return Walker(root_, path).Run();
}

}  // namespace ProcMgr::Pmctl
