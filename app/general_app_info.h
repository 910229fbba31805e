// The record of a general application: a process that an owner requests, that its owner terminates
// and restarts with a time-out, and whose new configuration counts from its next start. The
// container of the general applications holds these records through shared pointers and guards them
// with its lock.
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

    // Takes note of what the configuration says now: it counts from the next start, its time-out
    // from the next request to end.
    void Refresh(const ApplicationManifest& manifest);

    // The configuration's present entry.
    const AppSpec& GetEntry() const { return *entry_; }

    // What a start by the configuration's present entry would be, with what a request supplies.
    // Nothing, with a log line, when a value is refused. Changes nothing.
    std::optional<AppSpec> MakeStart(
        const std::vector<std::string>& argv,
        const std::map<int, std::vector<std::string>>& dynamicPara) const;

    // A terminate or restart begins at `now`.
    void BeginTermination(SteadyTime now);

    // What the process that follows a restart is started by.
    void SetNext(AppSpec spec) { next_ = std::move(spec); }
    void TakeNext();

    // Forks and executes; see ProcessLauncher::Fork. The caller sets the state.
    bool StartProcess(ProcessLauncher& launcher, LaunchPlan& plan);

    // Returns the state that follows, and does what is due at `now`: the kill after a time-out.
    ProcessState CheckState(SteadyTime now);

    // Whether the old process of a restart is gone and the new one has not been started.
    bool IsRestartDue() const {
        return GetState() == RESTARTING && !restartStarted_ && exitStatusSet_;
    }
    // The outcome of the start that was due. Returns the state that follows.
    ProcessState FinishRestart(bool isStarted);

    // The begin of a terminate or restart.
    void SetTermStartTime(SteadyTime now) { termStartTime_ = now; }
    SteadyTime GetTermStartTime() const { return termStartTime_; }

    SteadyTime termStartTime_{};
    bool savedForceTerm_ = false;
    bool killSent_ = false;
    bool restartStarted_ = false;
    std::string asker_;     // of a priority application's start: who else is told of it
    uint64_t changes_ = 0;  // of state that supervision has told of

private:
    int64_t MillisecondsSinceTerm(SteadyTime now) const;
    void Kill();
    ProcessState CheckTerminating(SteadyTime now);
    ProcessState CheckRestartWait(SteadyTime now);
    ProcessState CheckRestartDone();

    std::shared_ptr<const AppSpec> entry_;  // what the configuration says now, as it stands there
    std::optional<AppSpec> next_;           // of a restart that has begun
};

}  // namespace ProcMgr::App
