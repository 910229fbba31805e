// The record of a base service: a process that the daemon starts at boot and restarts by the policy
// of its manifest. The container of the base services holds these records by value and guards them
// with its lock.
#pragma once

#include <deque>

#include "app/app_info.h"

namespace ProcMgr::App {

class ProcessLauncher;
struct LaunchPlan;

class BaseAppInfo : public AppInfo {
public:
    explicit BaseAppInfo(const ApplicationManifest& manifest);

    // Forks and executes; see ProcessLauncher::Fork. STARTING afterwards.
    bool StartProcess(ProcessLauncher& launcher, LaunchPlan& plan);

    // Returns the state that follows.
    ProcessState CheckState();

    // Whether its policy restarts it at all.
    bool IsRestartable() const;

    // Whether the policy allows a restart at `now`. Each restart that it allows under "on-failure"
    // counts; the sixth within a minute turns the policy into "no".
    bool NeedRestart(SteadyTime now);

    std::deque<SteadyTime> restartTimes_;  // of the last five restarts at most, oldest first
    bool isReady_ = false;                 // its present process has said that it is ready
};

}  // namespace ProcMgr::App
