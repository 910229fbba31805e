// The axis of a time line: ticks at round times, with their labels.
#pragma once

#include <string>
#include <vector>

namespace ProcMgr::Pmctl {

struct Tick {
    double at = 0;  // milliseconds
    std::string label;
};

// Ticks from 0 to `end` (milliseconds), 1, 2 or 5 times a power of ten apart: at most `ticksMax`
// besides the one at 0. All labels have the same unit.
std::vector<Tick> MakeTicks(double end, size_t ticksMax);

}  // namespace ProcMgr::Pmctl
