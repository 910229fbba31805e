// How long a planned boot will take, from the times of an earlier boot. Start-up starts one service
// after the other and waits for the report of a service that has promised one, so the times of all
// launches and of all reports add up.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pmctl/boot_plan.h"
#include "pmctl/drawing.h"
#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// One service that is started. Milliseconds from the start of the first service.
struct ForecastStep {
    std::string name;
    double released = 0;  // its turn
    double started = 0;
    double running = 0;  // found running, or its report
    bool isWaitedFor = false;
    bool isGuess = false;  // the earlier boot has no times of it
    double held = 0;       // for how long it keeps start-up from the next service
};

struct Forecast {
    std::vector<ForecastStep> steps;  // in the order of their start
    double end = 0;                   // the last of them runs
    size_t guesses = 0;
};

Forecast MakeForecast(const BootPlan& plan, const Snapshot& earlier);

// What determines the end: the starts that start-up waits for, the longest first, all other
// launches together, and the service that runs last when start-up does not wait for it.
struct CriticalPart {
    std::string what;  // "NAME" or "N launches"
    double milliseconds = 0;
};
std::vector<CriticalPart> CriticalPath(const Forecast& forecast);

Timeline TimelineOf(const BootPlan& plan, const Forecast& forecast);

}  // namespace ProcMgr::Pmctl
