// What a child does between fork and execv: a list of named steps over the launch plan. The child
// takes no lock of the daemon's, does not log, and never returns into the daemon.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "app/launch_plan.h"

namespace ProcMgr::App {

// The child's own working state. Its memory is set aside before the fork.
struct ChildContext {
    explicit ChildContext(const LaunchPlan& launchPlan);
    ~ChildContext();
    ChildContext(const ChildContext&) = delete;
    ChildContext& operator=(const ChildContext&) = delete;

    const LaunchPlan& plan;
    std::vector<char*> argv;  // points into the plan, ends with null
    // Opened by root: the child may have another identity. -1 without such cores or without the
    // file.
    int aiTasksFd = -1;
    uint32_t bindCount = 0;  // as it was before the fork
    pid_t pid = 0;
    std::string error;  // one entry, ending in ";", for each step that failed
};

// A child whose identity cannot be set must not run its program.
enum class StepResult { GO_ON, GIVE_UP };

struct ChildStep {
    const char* name;
    StepResult (*run)(ChildContext& child);
};

// The steps of each kind of application, in their order.
std::span<const ChildStep> GetChildSteps(AppKind kind);

// Runs the steps and executes the program. Reports what failed over the plan's error descriptor.
[[noreturn]] void RunChild(ChildContext& child);

// Writes "app=NAME,pid=PID,TEXT" in one piece, cut off where a pipe ends to take it as one. Nothing
// when there is no text or no descriptor.
void ReportChildError(int fd, const std::string& appName, pid_t pid, const std::string& text);

}  // namespace ProcMgr::App
