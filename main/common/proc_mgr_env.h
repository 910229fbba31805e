// What the whole process knows about itself: pid, quick-start mode, the switches of the boot
// command line, the board, the child error pipe, the HOME of what it starts. Filled during start-up
// by the main and the start-up thread, read from any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace ProcMgr {

// The variable in which a process of the platform has its name.
inline constexpr const char* ENV_PROC_NAME = "PROC_NAME";

class ProcMgrEnv {
public:
    // The one instance, created on first use.
    static ProcMgrEnv& GetInstance();

    // -1 until it is stored.
    pid_t GetPid() const { return pid_; }
    void StorePid();

    // True from the start with the quick-start argument to the end of the quick-start wait. The log
    // goes to the kernel for that time: the system logger does not run yet.
    bool IsQuickStart() const { return quickStart_; }
    void SetQuickStart(bool quickStart);

    // Creates the pipe over which children say why they failed before their program ran. Its
    // descriptors do not pass into programs, and writing never blocks: a child must reach its exec
    // even when nobody reads. Both descriptors are -1 on failure.
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
    // A base-service YAML in place of the command line's, normalised; empty when there is none.
    const std::string& GetStartupYaml() const { return startupYaml_; }
    void SetStartupYaml(const std::string& path) { startupYaml_ = path; }
    // "RESUME_FAIL" or "SUSPEND_FAIL" when the last boot ended so, else empty.
    const std::string& GetRebootReason() const { return rebootReason_; }
    void SetRebootReason(const std::string& reason) { rebootReason_ = reason; }

    int32_t GetSlotId() const { return slotId_; }
    void SetSlotId(int32_t slotId) { slotId_ = slotId; }

    // HOME of every process that is started; empty when no account gives it.
    const std::string& GetHome() const { return home_; }
    void SetHome(const std::string& home) { home_ = home; }

private:
    ProcMgrEnv() = default;

    std::atomic<pid_t> pid_{-1};
    std::atomic<bool> quickStart_{false};
    std::atomic<int> childErrorReadFd_{-1};
    std::atomic<int> childErrorWriteFd_{-1};
    std::atomic<int32_t> slotId_{0};
    // Written before the first thread starts.
    bool selinuxEnable_ = false;
    bool disableWatchDog_ = false;
    bool veskcoreEnable_ = false;
    std::string startupYaml_;
    std::string rebootReason_;
    std::string home_;
};

}  // namespace ProcMgr
