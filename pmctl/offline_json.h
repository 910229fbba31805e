// The JSON documents of the commands about files. Fields may be added later.
#pragma once

#include <optional>
#include <string>

#include "pmctl/boot_forecast.h"
#include "pmctl/boot_plan.h"
#include "pmctl/finding.h"

namespace ProcMgr::Pmctl {

std::string FindingsJson(const Findings& findings);

std::string PlanJson(const BootPlan& plan);
// With the member "forecast", which is null without one.
std::string PlanJson(const BootPlan& plan, const std::optional<Forecast>& forecast);

}  // namespace ProcMgr::Pmctl
