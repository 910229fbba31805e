// The record of one managed process: the manifest values that it was started by, its pid, its state
// and its exit status. Base services and general applications derive their records from it. A
// record has no lock of its own: every access needs the lock of the container that holds it.
//
// States (ProcessState), and what moves a record between them:
//   INITSTATE    no process has been started; pid_ is 0.
//   STARTING     a process has been forked. The next state check finds it running or ended. A
//                reporting base service stays in this state until it reports itself.
//   RUNNING      a state check has found the process alive, or the service has reported itself.
//   TERMINATING  SIGTERM has been sent on request, or the service has reported that it ends.
//   TERMINATED   the exit of the process has been collected. Only a new start leaves this state.
//   RESTARTING   general applications: the old process is being stopped, or (restartStarted_) the
//                new one has been forked.
// ChangeState() is the only function that writes the state. CheckState() of the derived classes
// moves the record to its next state and stores in reportType_ the type of the report about that
// change.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "app/app_history.h"
#include "app/app_spec.h"
#include "app/state_change.h"
#include "main/common/clock.h"
#include "message/enum_names.h"
#include "platform/manifest.h"

namespace ProcMgr::App {

class AppInfo : public AppSpec {
public:
    virtual ~AppInfo() = default;

    ProcessState GetState() const { return state_; }

    // Moves the record to `to` and returns `to`. A change that is not in TRANSITIONS is a fault of
    // the daemon: the change is logged and made nevertheless.
    ProcessState ChangeState(ProcessState to, ChangeReason reason);

    // Stores the raw wait status of the record's process. Called by the reaper before it frees the
    // pid: from here on the pid must not be signalled.
    void SetExitStatus(int32_t status);

    // Gives the record the process `pid`, which has just been forked. The exit status of the
    // previous process is kept until here; without it the record would look alive while its old pid
    // may already belong to a foreign process. Does not throw.
    void SetStarted(int32_t pid) {
        pid_ = pid;
        exitStatusSet_ = false;
        tids_.clear();
        if (history_ != nullptr) {
            history_->NoteStart(startTime_);
        }
    }

    // Takes over the process and the state of `other`, a record of the same application. Does not
    // throw.
    void TakeProcess(const AppInfo& other) {
        pid_ = other.pid_;
        startTime_ = other.startTime_;
        state_ = other.state_;
    }

    // True while there is a process that may be signalled: it was started and its exit has not been
    // collected.
    bool IsAlive() const { return pid_ > 0 && !exitStatusSet_; }

    // The part of the record that a manifest defines.
    const AppSpec& GetSpec() const { return *this; }
    // Replaces the manifest values, for the next process; pid, state and exit status are kept.
    void TakeSpec(AppSpec spec) { static_cast<AppSpec&>(*this) = std::move(spec); }

    // True from the end of a process until supervision has decided about a restart and, if it
    // restarts the service, has forked the new process. Base start-up waits for that before it
    // starts services that depend on this one.
    bool IsUndecided() const {
        return (isLaunching_ && !IsAlive()) || (exitStatusSet_ && state_ != TERMINATED);
    }

    // True when a state check would find nothing new and change nothing. Most records are settled
    // most of the time, so supervision skips them.
    bool IsSettled() const {
        return state_ == RUNNING && !exitStatusSet_ && pid_ > 0 && !exitedWith125_ &&
               reportType_ == INVALID_INTERMEDIATE_STATE;
    }

    // Sends SIGTERM to the process, unless its exit has been collected. False only when the pid is
    // invalid.
    bool TermProcess() const;

    int32_t pid_ = 0;
    ReportAppStateType reportType_ = INVALID_INTERMEDIATE_STATE;
    bool exitedWith125_ = false;
    // A thread is starting the record's next process. Until that thread resets the flag, only that
    // thread changes the record; supervision skips it.
    bool isLaunching_ = false;
    // Of the container: its next periodic pass, or its next extra pass, looks at the record.
    bool isDue_ = false;
    bool isEnded_ = false;
    std::string home_;
    std::string owner_;
    std::set<int32_t> tids_;
    bool exitStatusSet_ = false;
    int32_t exitStatus_ = 0;  // the raw wait status
    SteadyTime startTime_{};  // taken just before the fork
    // Null while the status endpoint is off. A copy of the record shares the history; only who
    // holds the lock of the container may use it.
    std::shared_ptr<AppHistory> history_;

protected:
    AppInfo(const ApplicationManifest& manifest, const std::string& appName,
            const std::string& owner);
    // Protected, so that only complete derived records are copied: a copy of an AppInfo would lose
    // the fields of the derived class.
    AppInfo(const AppInfo&) = default;
    AppInfo& operator=(const AppInfo&) = default;
    AppInfo(AppInfo&&) = default;
    AppInfo& operator=(AppInfo&&) = default;

    // The state checks of STARTING and RUNNING, which are the same for both kinds of record.
    ProcessState CheckStarting();
    ProcessState CheckRunning();

    // Logs the exit, and sets reportType_ to a normal or an abnormal exit.
    void ClassifyExit(int32_t status);

private:
    ProcessState state_ = INITSTATE;
};

}  // namespace ProcMgr::App
