// The dependency graph of the services of a file, for people, for Graphviz and as a picture.
#pragma once

#include <string>

#include "pmctl/boot_plan.h"
#include "pmctl/drawing.h"

namespace ProcMgr::Pmctl {

// One line for each service in the order of the plan: what it waits for, and what waits for it.
std::string GraphText(const BootPlan& plan);
// In the language of Graphviz.
std::string GraphDot(const BootPlan& plan);
// For DrawGraph().
Graph GraphOf(const BootPlan& plan);

}  // namespace ProcMgr::Pmctl
