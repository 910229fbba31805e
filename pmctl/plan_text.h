// A boot plan and its forecast as text for people.
#pragma once

#include <string>

#include "pmctl/boot_forecast.h"
#include "pmctl/boot_plan.h"

namespace ProcMgr::Pmctl {

// The priority applications, the batches, and what is not started and why. Each ends with a line
// end.
std::string PlanText(const BootPlan& plan);
// The time line with a bar for each service, and the critical path.
std::string ForecastText(const Forecast& forecast);

}  // namespace ProcMgr::Pmctl
