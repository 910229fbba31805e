#include "pmctl/axis.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "pmctl/people.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr double MS_PER_S = 1000;
constexpr double SHORTEST = 0.001;  // milliseconds
constexpr double LONGEST = 1e12;

double StepFor(double end, size_t ticksMax) {
    const double least = end / static_cast<double>(std::max<size_t>(ticksMax, 1));
    const double power = std::pow(10.0, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= least * (1 - 1e-9)) {
            return factor * power;
        }
    }
    return 10 * power;
}

// "0.5 s", with as many digits as the step needs.
std::string LabelOf(double at, double step) {
    const bool isSeconds = step >= MS_PER_S / 10;
    const double unit = isSeconds ? MS_PER_S : 1;
    const int digits = std::max(0, -static_cast<int>(std::floor(std::log10(step / unit) + 1e-9)));
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f %s", digits, at / unit, isSeconds ? "s" : "ms");
    return text.data();
}

}  // namespace

std::vector<Tick> MakeTicks(double end, size_t ticksMax) {
    const double last = std::clamp(end, SHORTEST, LONGEST);
    const double step = StepFor(last, ticksMax);
    std::vector<Tick> ticks;
    for (size_t i = 0; static_cast<double>(i) * step <= last * (1 + 1e-9); ++i) {
        const double at = static_cast<double>(i) * step;
        ticks.push_back({at, i == 0 ? "0" : LabelOf(at, step)});
    }
    return ticks;
}

std::string FormatMoment(double ms) {
    constexpr double TEN_SECONDS = 9995;
    if (ms < MS_PER_S - 0.5 || ms >= TEN_SECONDS) {
        return FormatDuration(ms * NS_PER_MS);
    }
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.2f s", ms / MS_PER_S);
    return text.data();
}

}  // namespace ProcMgr::Pmctl
