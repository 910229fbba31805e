// The record of a general application: a process that an owner starts, terminates and restarts by
// requests. A changed configuration takes effect at the next start. The container of the general
// applications holds these records through shared pointers and guards them with its lock.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/app_info.h"

namespace ProcMgr::App {

class ProcessLauncher;
struct LaunchPlan;

class GeneralAppInfo : public AppInfo {
public:
    GeneralAppInfo(const std::string& appName, const ApplicationManifest& manifest,
                   const std::string& owner);

    // Stores the configuration's present entry. It takes effect at the next start; its termination
    // time-out and force-term flag take effect at the next request to terminate or restart.
    void Refresh(const ApplicationManifest& manifest);

    // The configuration's present entry.
    const AppSpec& GetEntry() const { return *entry_; }

    // Returns the values of a start by the configuration's present entry, with the values of
    // a start request filled in. Returns nothing, with a log line, when a value is refused.
    std::optional<AppSpec> MakeStart(
        const std::vector<std::string>& argv,
        const std::map<int, std::vector<std::string>>& dynamicPara) const;

    // Marks the begin of a terminate or restart at `now`.
    void BeginTermination(SteadyTime now);
    void SetTermStartTime(SteadyTime now) { termStartTime_ = now; }
    SteadyTime GetTermStartTime() const { return termStartTime_; }

    // Stores the values of the process that a restart will start. TakeNext() makes it the
    // record's own, once the old process has ended; without stored values TakeNext()
    // changes nothing.
    void SetNext(AppSpec spec) { next_ = std::move(spec); }
    void TakeNext();

    // Starts the record's process; see ProcessLauncher::Fork. The caller changes the state.
    bool StartProcess(ProcessLauncher& launcher, LaunchPlan& plan);

    // Moves the record to its next state at the time `now` and returns that state. Sends SIGKILL
    // when the time-out of a restart, or of a terminate that may kill, is over.
    ProcessState CheckState(SteadyTime now);

    // Whether the old process of a restart has ended and the new one has not been started.
    bool IsRestartDue() const {
        return GetState() == RESTARTING && !restartStarted_ && exitStatusSet_;
    }
    // Takes the outcome of the start that IsRestartDue() asked for. Returns the state that follows.
    ProcessState FinishRestart(bool isStarted);

    bool savedForceTerm_ = false;  // the configured force-term flag, restored by a restart
    bool killSent_ = false;        // SIGKILL has been sent for the present terminate or restart
    bool restartStarted_ = false;  // the new process of a restart has been forked
    // The service that is told the next change besides the application's owner: the one that has
    // asked for the start of a priority application, unless it is the access manager, and the
    // console that has asked for an end or a restart. Else empty.
    std::string asker_;
    uint64_t changes_ = 0;  // the number of state changes that supervision has reported

private:
    int64_t MillisecondsSinceTerm(SteadyTime now) const;
    void Kill();
    ProcessState CheckTerminating(SteadyTime now);
    ProcessState CheckRestartWait(SteadyTime now);
    ProcessState CheckRestartDone();

    SteadyTime termStartTime_{};
    std::shared_ptr<const AppSpec> entry_;  // the configuration's present entry
    std::optional<AppSpec> next_;           // the values of SetNext()
};

}  // namespace ProcMgr::App
