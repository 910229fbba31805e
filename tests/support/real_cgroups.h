// Control groups of the kernel for one test: in each hierarchy a directory that only this test
// uses. The private mount namespace of the test shows it as the root of the hierarchy, and the
// process of the test moves into it.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

class RealCgroups {
public:
    // Needs a private mount namespace with a writable /sys/fs/cgroup. Throws std::runtime_error,
    // with the reason to skip the test, where the kernel has no first-version hierarchy of a
    // controller or does not allow to mount it.
    explicit RealCgroups(const std::vector<std::string>& controllers);
    // All processes in the groups, except the test itself, must have ended.
    ~RealCgroups();
    RealCgroups(const RealCgroups&) = delete;
    RealCgroups& operator=(const RealCgroups&) = delete;

    // Makes a group. A cpuset group gets the memory nodes of its parent and `cores`.
    void Make(const std::string& controller, const std::string& group,
              const std::string& cores = "");

    // The group of the thread, from /proc; "/" for the directory of the test, and the whole path of
    // a group outside of that directory.
    std::string GroupOf(pid_t pid, pid_t tid, const std::string& controller) const;

private:
    RealCgroups() = default;
    void Take(const std::string& controller);

    const std::string name_ = "procmgr-test-" + std::to_string(getpid());
    std::vector<std::string> homes_;  // former group of the test, by hierarchy
    std::vector<std::string> made_;   // directories of groups, parents first
};
