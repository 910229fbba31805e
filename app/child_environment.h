// The environment of a program that is to be started, computed in the parent: the child allocates
// nothing.
#pragma once

#include <string>

#include "app/environment_block.h"

namespace ProcMgr::App {

struct LaunchPlan;

struct ChildEnvironment {
    EnvironmentBlock block;
    // What could not be set, in the form of the child's message: the variables that belong before
    // the access registration, and those after it.
    std::string errorBeforeAccess;
    std::string errorAfterAccess;
};

// Sets all variables of the plan, in the order of the steps of its kind of application.
ChildEnvironment MakeChildEnvironment(const LaunchPlan& plan);

}  // namespace ProcMgr::App
