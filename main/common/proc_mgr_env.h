// The properties of the daemon's process: pid, quick-start mode, switches of the boot command line,
// board slot, child error pipe, HOME of the processes that it starts. The main thread and the
// start-up thread set them during start-up; any thread reads them.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace ProcMgr {

// The environment variable that holds the name of a process of the platform.
inline constexpr const char* ENV_PROC_NAME = "PROC_NAME";

class ProcMgrEnv {
public:
    // The one instance, created on first use.
    static ProcMgrEnv& GetInstance();

    // The pid of the daemon; -1 before StorePid().
    pid_t GetPid() const { return pid_; }
    void StorePid();

    // True from a start with the quick-start argument to the end of the quick-start wait. Log lines
    // go to the kernel log for that time, because the system logger does not run yet.
    bool IsQuickStart() const { return quickStart_; }
    void SetQuickStart(bool quickStart);

    // Creates the pipe into which a child writes the reason when its set-up fails before exec. Both
    // descriptors are close-on-exec, and -1 on failure. The write end is non-blocking, because a
    // child must reach its exec even when the child-error thread does not read.
    void CreateChildErrorPipe();
    void CloseChildErrorPipe();
    int GetChildErrorReadFd() const { return childErrorReadFd_; }
    int GetChildErrorWriteFd() const { return childErrorWriteFd_; }

    // Whether the kernel enforces SELinux.
    bool IsSelinuxEnable() const { return selinuxEnable_; }
    void SetSelinuxEnable(bool enable) { selinuxEnable_ = enable; }

    // Switches of the boot command line.
    bool IsWatchDogDisabled() const { return disableWatchDog_; }
    void SetDisableWatchDog(bool disable) { disableWatchDog_ = disable; }
    bool IsVeskcoreEnable() const { return veskcoreEnable_; }
    void SetVeskcoreEnable(bool enable) { veskcoreEnable_ = enable; }
    // The base-service file that replaces the one of the daemon's arguments, as a normalised path;
    // empty when the boot command line names none.
    const std::string& GetStartupYaml() const { return startupYaml_; }
    void SetStartupYaml(const std::string& path) { startupYaml_ = path; }
    // "RESUME_FAIL" or "SUSPEND_FAIL" when the last run of the system ended with that failure, else
    // empty. Recorded, like the two switches above, for a start-up sequence of the platform; the
    // daemon itself only logs it.
    const std::string& GetRebootReason() const { return rebootReason_; }
    void SetRebootReason(const std::string& reason) { rebootReason_ = reason; }

    int32_t GetSlotId() const { return slotId_; }
    void SetSlotId(int32_t slotId) { slotId_ = slotId; }

    // The variable HOME of every process that is started; empty when no account has a home.
    const std::string& GetHome() const { return home_; }
    void SetHome(const std::string& home) { home_ = home; }

private:
    ProcMgrEnv() = default;

    std::atomic<pid_t> pid_{-1};
    std::atomic<bool> quickStart_{false};
    std::atomic<int> childErrorReadFd_{-1};
    std::atomic<int> childErrorWriteFd_{-1};
    std::atomic<int32_t> slotId_{0};
    // Constant once the first thread has been started.
    bool selinuxEnable_ = false;
    bool disableWatchDog_ = false;
    bool veskcoreEnable_ = false;
    std::string startupYaml_;
    std::string rebootReason_;
    std::string home_;
};

}  // namespace ProcMgr
