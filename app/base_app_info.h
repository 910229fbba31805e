// The record of a base service: a process that the daemon starts at boot and restarts by the policy
// of its manifest. The container of the base services holds these records by value and guards them
// with its lock.
#pragma once

#include <cstdint>
#include <vector>

#include "app/app_info.h"

namespace ProcMgr::App {

class ProcessLauncher;
struct LaunchPlan;

class BaseAppInfo : public AppInfo {
public:
    explicit BaseAppInfo(const ApplicationManifest& manifest);

    // Starts the record's process, see ProcessLauncher::Fork, and moves the record to STARTING.
    bool StartProcess(ProcessLauncher& launcher, LaunchPlan& plan);

    // Moves the record to its next state and returns that state.
    ProcessState CheckState();

    // Whether the restart policy allows restarts at all.
    bool IsRestartable() const;

    // Whether the restart policy allows a restart at the time `now`. Under "on-failure", five
    // restarts within a minute are allowed and counted; a sixth is refused and changes the policy
    // to "no".
    bool NeedRestart(SteadyTime now);

    std::vector<SteadyTime> restartTimes_;  // the last restarts, at most five, the oldest first
    bool isReady_ = false;                  // the present process has sent its readiness report
    uint64_t startNumber_ = 0;              // of the container: the position in the start order
};

}  // namespace ProcMgr::App
