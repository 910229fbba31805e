#include "tests/support/real_cgroups.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/support/files.h"
#include "tests/support/private_mounts.h"
#include "tests/support/wait.h"

namespace {

namespace fs = std::filesystem;
using ProcMgr::Tests::ReadFile;
using ProcMgr::Tests::WriteFile;

fs::path RootOf(const std::string& controller) {
    return "/run/cgroup-" + controller;
}

void MoveTo(const fs::path& group) {
    std::ofstream(group / "cgroup.procs") << getpid() << std::flush;
}

}  // namespace

// The second constructor completes the object: the destructor runs although Take() throws.
RealCgroups::RealCgroups(const std::vector<std::string>& controllers) : RealCgroups() {
    for (const std::string& controller : controllers) {
        Take(controller);
    }
}

void RealCgroups::Take(const std::string& controller) {
    const fs::path root = RootOf(controller);
    const fs::path place = "/sys/fs/cgroup/" + controller;
    const fs::path own = root / name_;
    fs::create_directories(root);
    fs::create_directories(place);
    Require(Mount("cgroup", root, "cgroup", controller), "first-version groups: " + controller);
    Require(mkdir(own.c_str(), 0755) == 0, "make a group: " + controller);
    made_.push_back(own);
    Require(Mount(own, place), "bind " + place.string());
    homes_.push_back(root.string() + GroupOf(getpid(), getpid(), controller));
    if (controller == "cpuset") {
        for (const char* file : {"cpuset.cpus", "cpuset.mems"}) {
            WriteFile(own / file, ReadFile(root / file));
        }
    }
    MoveTo(own);
}

void RealCgroups::Make(const std::string& controller, const std::string& group,
                       const std::string& cores) {
    const fs::path directory = RootOf(controller) / name_ / group;
    Require(mkdir(directory.c_str(), 0755) == 0, "make " + directory.string());
    made_.push_back(directory);
    if (controller == "cpuset") {
        WriteFile(directory / "cpuset.mems", ReadFile(directory.parent_path() / "cpuset.mems"));
        WriteFile(directory / "cpuset.cpus", cores);
    }
}

std::string RealCgroups::GroupOf(pid_t pid, pid_t tid, const std::string& controller) const {
    std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/cgroup");
    const std::string key = ":" + controller + ":";
    for (std::string line; std::getline(file, line);) {
        if (const size_t at = line.find(key); at != std::string::npos) {
            const std::string path = line.substr(at + key.size());
            const std::string own = "/" + name_;
            const bool isInside = path.starts_with(own);
            return isInside ? path.size() == own.size() ? "/" : path.substr(own.size()) : path;
        }
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
}
