// The child's part of a launch: a table of steps over the launch plan that runs between the
// creation of the child and execve. ProcessLauncher is the only caller. The child may still share
// the memory of the daemon, see child_slots.h: it makes system calls, reads what was computed
// before, and writes nothing but its ChildContext, the fault note of that context, and errno. It
// takes no lock, allocates no memory, writes no log line and never returns into the daemon's code.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/child_environment.h"
#include "app/child_fault.h"
#include "app/child_message.h"
#include "app/launch_plan.h"
#include "resource/bind_count.h"

namespace ProcMgr::App {

// Everything that one child uses. The parent creates it before the child, so that the memory exists
// already, and keeps it until the child has executed its program. Afterwards the child alone
// changes it.
struct ChildContext {
    // `bindCount` must outlive this object.
    ChildContext(LaunchPlan launchPlan, const BindCount& bindCount);
    ChildContext(const ChildContext&) = delete;
    ChildContext& operator=(const ChildContext&) = delete;

    const LaunchPlan plan;
    const BindCount& binds;
    const uint32_t bindsBeforeFork;
    // The arguments and variables of execve: pointers into the above, then null.
    std::vector<char*> argv;
    std::vector<char*> envp;
    // The variable of the C library for the environment, in a child with memory of its own; it
    // then replaces envp. Else null.
    char*** variables = nullptr;
    // The tasks file of the accelerator's cpuset, opened while the process is still root; the
    // parent closes its own descriptor. Negative for an application without accelerator cores, and
    // when the file cannot be opened.
    int aiTasks = -1;
    // What standard output and error are connected to; the parent closes its own descriptor.
    // Negative: they stay those of the daemon.
    int output = -1;
    // The child has the signal handlers of the daemon.
    bool hasHandlers = true;
    // Where the child writes why it does not execute its program; null: nowhere.
    std::shared_ptr<ChildFaultNote> fault;
    pid_t pid = 0;
    // One entry, ending in ";", for each step that failed.
    ChildMessage message;
};

// Runs the steps of the plan's kind of application and executes the program. Failures are written
// to the plan's error descriptor. Ends the process with status 1 when the identity cannot be set or
// the program cannot be executed, and with 125 when executing it failed with EIO.
[[noreturn]] void RunChild(ChildContext& child);

}  // namespace ProcMgr::App
