// The record of one managed process: what its manifest says, the process that runs for it, its
// state and its exit. Records have no lock: the container that holds one guards it.
//
// States (ProcessState), and who moves a record between them:
//   INITSTATE    never started; pid_ is 0.
//   STARTING     forked; the next check finds it RUNNING or TERMINATED. A reporting base service
//                stays here until it reports itself.
//   RUNNING      up, or said to be.
//   TERMINATING  SIGTERM was sent on request, or the service said that it is ending.
//   TERMINATED   its exit has been collected. Only a new start leaves this state.
//   RESTARTING   general applications: the old process is being stopped, or (restartStarted_) the
//                new one has been forked.
// CheckState() computes the next state and leaves in reportType_ what is to be reported about it;
// the container stores the state. SetExitStatus() is the reaper's and comes before the pid is
// freed: a record with exitStatusSet_ must not be signalled any more.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "main/system.h"
#include "message/enum_names.h"
#include "platform/manifest.h"

namespace ProcMgr::App {

class ProcessLauncher;

// A record's scheduling policy, translated to the operating system's only when it is applied.
enum class SchedPolicyType : uint32_t {
    OTHER = 0,
    BATCH = 1,
    IDLE = 2,
    FIFO = 3,
    ROUND_ROBIN = 4,
    NOT_SET = 5,
};

// The operating system's policy; SCHED_OTHER for what is not in the table.
int ToSystemPolicy(SchedPolicyType policy);

class AppInfo {
public:
    // A start-up priority that is none.
    static constexpr int32_t NO_PRIORITY = -1;

    AppInfo(const ApplicationManifest& manifest, const std::string& appName,
            const std::string& owner);
    virtual ~AppInfo() = default;
    AppInfo(const AppInfo&) = default;
    AppInfo& operator=(const AppInfo&) = default;
    AppInfo(AppInfo&&) = default;
    AppInfo& operator=(AppInfo&&) = default;

    // Stores the raw wait status of the record's process.
    void SetExitStatus(int32_t status);

    // Makes a process that has just been forked the record's. Until then the exit of the one before
    // it stands, or its freed pid would look alive. Does not throw.
    void SetStarted(int32_t pid) {
        pid_ = pid;
        exitStatusSet_ = false;
        tids_.clear();
    }

    // True while there is a process that may be signalled: started, its exit not collected.
    bool IsAlive() const { return pid_ > 0 && !exitStatusSet_; }

    // Started by the daemon itself, and reported to the access manager.
    bool IsPriority() const { return startupPriority_ != NO_PRIORITY; }

    // True when a state check would find nothing new and leave the record as it is: what nearly all
    // records are nearly all the time.
    bool IsSettled() const {
        return state_ == RUNNING && !exitStatusSet_ && pid_ > 0 && !exitedWith125_ &&
               reportType_ == INVALID_INTERMEDIATE_STATE;
    }

    // Sends SIGTERM. False only for an invalid pid. A process whose exit has been collected is not
    // signalled.
    bool TermProcess() const;

    std::string appName_;
    int32_t pid_ = 0;
    uint32_t uid_ = 0;
    uint32_t gid_ = 0;
    std::vector<uint32_t> coreAffinity_;
    std::string resGroupName_;
    ProcessState state_ = INITSTATE;
    ReportAppStateType reportType_ = INVALID_INTERMEDIATE_STATE;
    std::string execPath_;
    std::vector<std::string> arguments_;
    std::map<std::string, std::string> envs_;
    uint32_t termTimeout_ = 0;  // milliseconds
    bool exitedWith125_ = false;
    std::string home_;
    std::string securityCon_;
    std::string cpuset_;
    bool isReporting_ = false;
    std::string restartPolicy_;
    std::string owner_;
    uint32_t nodeType_ = 0;
    int32_t startupPriority_ = NO_PRIORITY;
    bool isDelayCoreAffinity_ = false;
    std::set<int32_t> tids_;
    bool exitStatusSet_ = false;
    int32_t exitStatus_ = 0;  // as waitpid gives it
    SteadyTime startTime_{};  // just before the fork
    int32_t vfId_ = -1;
    bool isDynamicPara_ = false;
    std::string blkioGroupName_;
    std::map<std::string, std::string> cgroupPath_;
    uint32_t numaType_ = 0;
    bool dynamicExecPath_ = false;
    std::string execPathPattern_;
    bool dynamicArguments_ = false;
    std::map<std::string, std::string> envPatterns_;  // every configured entry
    bool dynamicVfId_ = false;
    std::string vfIdPattern_;
    SchedPolicyType schedPolicy_ = SchedPolicyType::NOT_SET;
    bool rtEnable_ = false;
    int32_t rtPriority_ = -1;

protected:
    // Applies the real-time settings and the core-affinity marker of a manifest.
    void ApplyScheduling(const ApplicationManifest& manifest);

    // The checks that both kinds share. `exited` names the transition in the log.
    ProcessState CheckStarting();
    ProcessState CheckRunning();

    // Logs the exit and decides whether it was a normal one.
    void ClassifyExit(int32_t status);

private:
    void ApplyRealTime(const ApplicationManifest& manifest);
};

// An application started on request. Owned through shared pointers.
class GeneralAppInfo : public AppInfo {
public:
    GeneralAppInfo(const std::string& appName, const ApplicationManifest& manifest,
                   const std::string& owner);

    // Takes over what a changed manifest says; what runs goes on as it is.
    void Refresh(const ApplicationManifest& manifest, const std::string& appName);

    // Applies what a start request supplies: arguments, and by index the executable path, the
    // virtual function id and environment entries. Nothing when the manifest has no patterns to be
    // filled. False, with a log line, when a value does not match its pattern; what came before it
    // stays.
    bool UpdateDynamicPara(const std::vector<std::string>& argv,
                           const std::map<int, std::vector<std::string>>& dynamicPara);
    bool UpdateExecvPath(const std::vector<std::string>& values);
    bool UpdateVfId(const std::vector<std::string>& values);
    bool UpdateEnv(const std::vector<std::string>& values);

    // Forks and executes; see ProcessLauncher. The caller sets the state.
    bool StartProcess(ProcessLauncher& launcher);

    // Returns the state that follows, and does what is due at `now`: the kill after a time-out,
    // the start after the exit of a restart.
    ProcessState CheckState(SteadyTime now, ProcessLauncher& launcher);

    // The begin of a terminate or restart.
    void SetTermStartTime(SteadyTime now) { termStartTime_ = now; }
    SteadyTime GetTermStartTime() const { return termStartTime_; }

    SteadyTime termStartTime_{};
    int32_t nice_ = 0;
    bool forceTerm_ = false;
    bool savedForceTerm_ = false;
    bool killSent_ = false;
    std::vector<std::pair<std::string, std::string>> sharepoolGroups_;
    bool heartBeatSwitch_ = false;
    bool restartStarted_ = false;

private:
    int64_t MillisecondsSinceTerm(SteadyTime now) const;
    void Kill();
    ProcessState CheckTerminating(SteadyTime now);
    ProcessState CheckRestarting(SteadyTime now, ProcessLauncher& launcher);
    ProcessState CheckRestartWait(SteadyTime now, ProcessLauncher& launcher);
    ProcessState CheckRestartDone();
    void DetectDynamicParameters(const ApplicationManifest& manifest);
};

// A service started at boot. Held by value.
class BaseAppInfo : public AppInfo {
public:
    explicit BaseAppInfo(const ApplicationManifest& manifest);

    // Forks and executes; see ProcessLauncher. STARTING afterwards.
    bool StartProcess(ProcessLauncher& launcher);

    // Returns the state that follows.
    ProcessState CheckState();

    // Whether the policy allows a restart at `now`. Each restart that it allows under "on-failure"
    // counts; the sixth within a minute turns the policy into "no".
    bool NeedRestart(SteadyTime now);

    std::set<std::string> dependList_;
    bool forceTerm_ = false;
    std::string startupEntryPath_;
    std::vector<SteadyTime> restartTimes_;  // of the last five restarts at most, oldest first
    bool isReady_ = false;                  // its present process has said that it is ready
};

}  // namespace ProcMgr::App
