// The child's part of a launch: what happens between fork and execv, as a table of steps over the
// launch plan. ProcessLauncher is the only caller. The child takes no lock of the daemon, writes no
// log line and never returns into the daemon's code.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/launch_plan.h"
#include "resource/bind_count.h"
#include "wire/unique_fd.h"

namespace ProcMgr::App {

// The working state of one child. The parent creates it before the fork, so that its memory and the
// descriptor exist already; the child changes its own copy.
struct ChildContext {
    // `launchPlan` and `bindCount` must outlive this object.
    ChildContext(const LaunchPlan& launchPlan, const BindCount& bindCount);

    const LaunchPlan& plan;
    const BindCount& binds;
    const uint32_t bindsBeforeFork;
    // The arguments of execv: pointers into the plan, then null.
    std::vector<char*> argv;
    // The tasks file of the accelerator's cpuset, opened while the process is still root. Empty for
    // an application without accelerator cores, and when the file cannot be opened.
    Wire::UniqueFd aiTasks;
    pid_t pid = 0;
    // One entry, ending in ";", for each step that failed.
    std::string error;
};

// Runs the steps of the plan's kind of application and executes the program. Failures are written
// to the plan's error descriptor. Ends the process with status 1 when the identity cannot be set or
// the program cannot be executed, and with 125 when executing it failed with EIO.
[[noreturn]] void RunChild(ChildContext& child);

}  // namespace ProcMgr::App
