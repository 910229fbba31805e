// Control groups of the kernel for a test of its own: in each hierarchy a directory that only this
// test uses, that its private mount namespace shows in the place of the hierarchy's root, and that
// the test's process moves into.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class RealCgroups {
public:
    // Call it in a private mount namespace whose /sys/fs/cgroup may be written to.
    explicit RealCgroups(const std::vector<std::string>& controllers);
    // Needs all processes to be gone.
    ~RealCgroups();
    RealCgroups(const RealCgroups&) = delete;
    RealCgroups& operator=(const RealCgroups&) = delete;

    // False where the kernel has no first-version hierarchy of a controller, or does not give it
    // away: skip the test with Error() as the reason.
    bool IsReady() const { return error_.empty(); }
    const std::string& Error() const { return error_; }

    // Makes a group. A cpuset group gets the memory nodes of its parent, and these cores.
    void Make(const std::string& controller, const std::string& group,
              const std::string& cores = "");
    static void Write(const std::string& controller, const std::string& file,
                      const std::string& value);
    static std::string Read(const std::string& controller, const std::string& file);

    // The thread's group, as the kernel tells it; "/" for the test's own directory, and the
    // kernel's whole path for one outside of it.
    std::string GroupOf(pid_t pid, pid_t tid, const std::string& controller) const;

private:
    void Take(const std::string& controller);

    std::string error_;
    std::string name_;
    std::vector<std::string> roots_;  // of the hierarchies
    std::vector<std::string> homes_;  // where the test's process was in each of them
    std::vector<std::string> made_;   // directories, parents first
};
