#include "tests/support/real_cgroups.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/support/files.h"
#include "tests/support/wait.h"

namespace {

namespace fs = std::filesystem;

const fs::path CGROUP = "/sys/fs/cgroup";

std::string ReadAll(const fs::path& path) {
    std::string text = ProcMgr::Tests::ReadFile(path);
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

void MoveTo(const fs::path& group) {
    std::ofstream(group / "cgroup.procs") << getpid() << std::flush;
}

}  // namespace

RealCgroups::RealCgroups(const std::vector<std::string>& controllers)
    : name_("procmgr-test-" + std::to_string(getpid())) {
    for (const std::string& controller : controllers) {
        if (IsReady()) {
            Take(controller);
        }
    }
}

void RealCgroups::Take(const std::string& controller) {
    const fs::path root = "/run/cgroup-" + controller;
    const fs::path place = CGROUP / controller;
    fs::create_directories(root);
    fs::create_directories(place);
    if (mount("cgroup", root.c_str(), "cgroup", 0, controller.c_str()) != 0) {
        error_ = "no first-version control groups for " + controller + ": " + strerror(errno);
        return;
    }
    roots_.push_back(root);
    const fs::path own = root / name_;
    if (mkdir(own.c_str(), 0755) != 0 ||
        mount(own.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        error_ = "no group of its own for " + controller + ": " + strerror(errno);
        return;
    }
    made_.push_back(own);
    homes_.push_back(root.string() + GroupOf(getpid(), getpid(), controller));
    if (controller == "cpuset") {
        for (const char* file : {"cpuset.cpus", "cpuset.mems"}) {
            std::ofstream(own / file) << ReadAll(root / file) << std::flush;
        }
    }
    MoveTo(own);
}

void RealCgroups::Make(const std::string& controller, const std::string& group,
                       const std::string& cores) {
    const fs::path directory = fs::path("/run/cgroup-" + controller) / name_ / group;
    if (mkdir(directory.c_str(), 0755) == 0) {
        made_.push_back(directory);
    }
    if (controller == "cpuset") {
        Write(controller, group + "/cpuset.mems", ReadAll(directory.parent_path() / "cpuset.mems"));
        Write(controller, group + "/cpuset.cpus", cores);
    }
}

void RealCgroups::Write(const std::string& controller, const std::string& file,
                        const std::string& value) {
    std::ofstream(CGROUP / controller / file) << value << std::flush;
}

std::string RealCgroups::Read(const std::string& controller, const std::string& file) {
    return ReadAll(CGROUP / controller / file);
}

std::string RealCgroups::GroupOf(pid_t pid, pid_t tid, const std::string& controller) const {
    std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/cgroup");
    const std::string key = ":" + controller + ":";
    for (std::string line; std::getline(file, line);) {
        const size_t at = line.find(key);
        if (at == std::string::npos) {
            continue;
        }
        const std::string path = line.substr(at + key.size());
        const size_t own = path.find("/" + name_);
        if (own == std::string::npos) {
            return path;
        }
        const std::string group = path.substr(own + 1 + name_.size());
        return group.empty() ? "/" : group;
    }
    return {};
}

RealCgroups::~RealCgroups() {
    for (const std::string& home : homes_) {
        MoveTo(home);
    }
    // A group is busy until the kernel has removed the killed processes in it.
    for (; !made_.empty(); made_.pop_back()) {
        ProcMgr::Tests::WaitUntil(
            [&] { return rmdir(made_.back().c_str()) == 0 || errno != EBUSY; });
    }
    for (const std::string& root : roots_) {
        umount2(root.c_str(), MNT_DETACH);
    }
}
