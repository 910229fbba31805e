// The record of one managed process: what it was started by, the process that runs for it, its
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
// CheckState() moves the record to its next state and leaves in reportType_ what is to be reported
// about it. ChangeState() is the only function that writes the state. SetExitStatus() is the
// reaper's and comes before the pid is freed: a record with exitStatusSet_ must not be signalled
// any more.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "app/app_spec.h"
#include "app/state_change.h"
#include "main/common/clock.h"
#include "message/enum_names.h"
#include "platform/manifest.h"

namespace ProcMgr::App {

class AppInfo : public AppSpec {
public:
    AppInfo(const ApplicationManifest& manifest, const std::string& appName,
            const std::string& owner);
    virtual ~AppInfo() = default;
    AppInfo(const AppInfo&) = default;
    AppInfo& operator=(const AppInfo&) = default;
    AppInfo(AppInfo&&) = default;
    AppInfo& operator=(AppInfo&&) = default;

    ProcessState GetState() const { return state_; }
    // The last change; from INITSTATE to INITSTATE before the first.
    const StateChange& GetLastChange() const { return lastChange_; }

    // Moves the record to `to` and returns `to`. A change that is not in TRANSITIONS is a fault of
    // the daemon: it is logged, and made all the same.
    ProcessState ChangeState(ProcessState to, ChangeReason reason);

    // Stores the raw wait status of the record's process.
    void SetExitStatus(int32_t status);

    // Makes a process that has just been forked the record's. Until then the exit of the one before
    // it stands, or its freed pid would look alive. Does not throw.
    void SetStarted(int32_t pid) {
        pid_ = pid;
        exitStatusSet_ = false;
        tids_.clear();
    }

    // Takes over which process `other`, a record of the same application, has and in which state.
    // Does not throw.
    void TakeProcess(const AppInfo& other) {
        pid_ = other.pid_;
        startTime_ = other.startTime_;
        state_ = other.state_;
        lastChange_ = other.lastChange_;
    }
    // Takes over the result of the last state check of `other`. Does not throw.
    void TakeCheckResult(const AppInfo& other) {
        TakeProcess(other);
        reportType_ = other.reportType_;
        exitedWith125_ = other.exitedWith125_;
    }

    // True while there is a process that may be signalled: started, its exit not collected.
    bool IsAlive() const { return pid_ > 0 && !exitStatusSet_; }

    // What the next process is started by. The record's own fields belong to the process.
    void TakeSpec(AppSpec spec) { static_cast<AppSpec&>(*this) = std::move(spec); }

    // True from the end of a process until it is decided whether its restart has come about: the
    // record is neither alive nor gone, and whoever depends on it waits.
    bool IsUndecided() const {
        return (isLaunching_ && !IsAlive()) || (exitStatusSet_ && state_ != TERMINATED);
    }

    // True when a state check would find nothing new and leave the record as it is: what nearly all
    // records are nearly all the time.
    bool IsSettled() const {
        return state_ == RUNNING && !exitStatusSet_ && pid_ > 0 && !exitedWith125_ &&
               reportType_ == INVALID_INTERMEDIATE_STATE;
    }

    // Sends SIGTERM. False only for an invalid pid. A process whose exit has been collected is not
    // signalled.
    bool TermProcess() const;

    int32_t pid_ = 0;
    ReportAppStateType reportType_ = INVALID_INTERMEDIATE_STATE;
    bool exitedWith125_ = false;
    // A start of the record is under way: it belongs to the thread that does it, supervision leaves
    // it alone until that thread gives it back.
    bool isLaunching_ = false;
    std::string home_;
    std::string owner_;
    std::set<int32_t> tids_;
    bool exitStatusSet_ = false;
    int32_t exitStatus_ = 0;  // as waitpid gives it
    SteadyTime startTime_{};  // just before the fork

protected:
    // The checks that both kinds share. `exited` names the transition in the log.
    ProcessState CheckStarting();
    ProcessState CheckRunning();

    // Logs the exit and decides whether it was a normal one.
    void ClassifyExit(int32_t status);

private:
    ProcessState state_ = INITSTATE;
    StateChange lastChange_{};
};

}  // namespace ProcMgr::App
