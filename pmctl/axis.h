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

// A moment or a duration on the axis: "340 ms", "1.37 s", "12.3 s", "3 min 20 s".
std::string FormatMoment(double ms);

}  // namespace ProcMgr::Pmctl
