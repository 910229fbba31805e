// Control groups of the kernel for one test: in each hierarchy a directory that only this test
// uses. The private mount namespace of the test shows it as the root of the hierarchy, and the
// process of the test moves into it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class RealCgroups {
public:
    // Needs a private mount namespace with a writable /sys/fs/cgroup.
    explicit RealCgroups(const std::vector<std::string>& controllers);
    // All processes in the groups, except the test itself, must have ended.
    ~RealCgroups();
    RealCgroups(const RealCgroups&) = delete;
    RealCgroups& operator=(const RealCgroups&) = delete;

    // False where the kernel has no first-version hierarchy of a controller or does not allow to
    // mount it: skip the test with Error() as the reason.
    bool IsReady() const { return error_.empty(); }
    const std::string& Error() const { return error_; }

    // Makes a group. A cpuset group gets the memory nodes of its parent and `cores`.
    void Make(const std::string& controller, const std::string& group,
              const std::string& cores = "");
    static void Write(const std::string& controller, const std::string& file,
                      const std::string& value);
    static std::string Read(const std::string& controller, const std::string& file);

    // The group of the thread, from /proc; "/" for the directory of the test, and the whole path of
    // a group outside of that directory.
    std::string GroupOf(pid_t pid, pid_t tid, const std::string& controller) const;

private:
    void Take(const std::string& controller);

    std::string error_;
    std::string name_;
    std::vector<std::string> roots_;  // mount points of the hierarchies
    std::vector<std::string> homes_;  // former group of the test, by hierarchy
    std::vector<std::string> made_;   // directories of groups, parents first
};
