// What the whole process knows about itself: pid, quick-start mode, the child error pipe, the HOME
// of what it starts. Filled during start-up by the main thread, read from any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

namespace ProcMgr {

class ProcMgrEnv {
public:
    // The one instance, created on first use.
    static ProcMgrEnv& GetInstance();

    // -1 until it is stored.
    pid_t GetPid() const { return pid_; }
    void StorePid();

    // True from the command line's word until the quick-start wait has ended.
    bool IsQuickStart() const { return quickStart_; }
    void SetQuickStart(bool quickStart) { quickStart_ = quickStart; }

    // Creates the pipe over which children say why they failed before their program ran. Its
    // descriptors do not pass into programs, and writing never blocks: a child must reach its exec
    // even when nobody reads. Both descriptors are -1 on failure.
    void CreateChildErrorPipe();
    void CloseChildErrorPipe();
    int GetChildErrorReadFd() const { return childErrorReadFd_; }
    int GetChildErrorWriteFd() const { return childErrorWriteFd_; }

    // HOME of every process that is started; empty when no account gives it.
    const std::string& GetHome() const { return home_; }
    void SetHome(const std::string& home) { home_ = home; }

private:
    ProcMgrEnv() = default;

    std::atomic<pid_t> pid_{-1};
    std::atomic<bool> quickStart_{false};
    std::atomic<int> childErrorReadFd_{-1};
    std::atomic<int> childErrorWriteFd_{-1};
    std::string home_;  // written before the first thread starts
};

}  // namespace ProcMgr
