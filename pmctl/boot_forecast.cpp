#include "pmctl/boot_forecast.h"

#include <algorithm>
#include <map>
#include <optional>

#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

// How long the parts of one start took, in milliseconds.
struct StartTimes {
    double launch = 0;  // from its turn to the fork
    double run = 0;     // from the fork until it ran, or reported
};

std::optional<StartTimes> TimesOf(const Service& service) {
    if (!service.boot) {
        return std::nullopt;
    }
    const BootTimes& boot = *service.boot;
    const bool isOrdered = boot.releasedNs > 0 && boot.startedNs >= boot.releasedNs &&
                           boot.runningNs >= boot.startedNs;
    if (!isOrdered) {
        return std::nullopt;
    }
    return StartTimes{static_cast<double>(boot.startedNs - boot.releasedNs) / NS_PER_MS,
                      static_cast<double>(boot.runningNs - boot.startedNs) / NS_PER_MS};
}

double Median(std::vector<double> numbers) {
    if (numbers.empty()) {
        return 0;
    }
    const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2);
    std::nth_element(numbers.begin(), middle, numbers.end());
    return *middle;
}

// The times of the earlier boot by name, and the usual ones for services that it does not have.
class EarlierBoot {
public:
    explicit EarlierBoot(const Snapshot& snapshot) {
        for (const Service& service : snapshot.services) {
            if (const auto times = TimesOf(service)) {
                byName_.emplace(service.name, *times);
                launches_.push_back(times->launch);
                runs_[service.isReporting].push_back(times->run);
            }
        }
    }

    std::optional<StartTimes> Find(const std::string& name) const {
        const auto found = byName_.find(name);
        return found == byName_.end() ? std::nullopt : std::optional(found->second);
    }
    StartTimes Usual(bool isReporting) const {
        const auto runs = runs_.find(isReporting);
        return {Median(launches_), runs == runs_.end() ? 0 : Median(runs->second)};
    }

private:
    std::map<std::string, StartTimes, std::less<>> byName_;
    std::vector<double> launches_;
    std::map<bool, std::vector<double>> runs_;  // of reporting services, of the others
};

}  // namespace

Forecast MakeForecast(const BootPlan& plan, const Snapshot& earlier) {
    const EarlierBoot known(earlier);
    Forecast forecast;
    double now = 0;
    for (const PlannedService& service : plan.services) {
        if (service.fate != Fate::STARTED) {
            continue;
        }
        const auto found = known.Find(service.name);
        const StartTimes times = found ? *found : known.Usual(service.isReporting);
        ForecastStep step;
        step.name = service.name;
        step.isWaitedFor = service.isReporting;
        step.isGuess = !found;
        step.released = now;
        step.started = now + times.launch;
        step.running = step.started + times.run;
        now = service.isReporting ? step.running : step.started;
        step.held = now - step.released;
        forecast.end = std::max(forecast.end, step.running);
        forecast.guesses += step.isGuess ? 1 : 0;
        forecast.steps.push_back(std::move(step));
    }
    return forecast;
}

std::vector<CriticalPart> CriticalPath(const Forecast& forecast) {
    std::vector<CriticalPart> parts;
    double launches = 0;
    size_t count = 0;
    double last = 0;  // start-up has done its work
    for (const ForecastStep& step : forecast.steps) {
        last = std::max(last, step.released + step.held);
        if (step.isWaitedFor) {
            parts.push_back({step.name, step.held});
        } else {
            launches += step.held;
            ++count;
        }
    }
    std::stable_sort(parts.begin(), parts.end(), [](const CriticalPart& a, const CriticalPart& b) {
        return a.milliseconds > b.milliseconds;
    });
    if (count > 0) {
        parts.push_back({std::to_string(count) + (count == 1 ? " launch" : " launches"), launches});
    }
    for (const ForecastStep& step : forecast.steps) {
        if (!step.isWaitedFor && step.running == forecast.end && forecast.end > last) {
            parts.push_back({step.name + " until it runs", forecast.end - last});
            break;
        }
    }
    return parts;
}

Timeline TimelineOf(const BootPlan& plan, const Forecast& forecast) {
    Timeline timeline;
    timeline.title = "Predicted start-up of " + plan.file;
    timeline.end = forecast.end;
    for (const ForecastStep& step : forecast.steps) {
        TimelineRow row;
        row.name = step.name;
        row.started = step.started;
        row.ready = step.running;
        row.isCritical = step.isWaitedFor;
        row.note = step.isGuess       ? "no times of an earlier boot: the usual ones are taken"
                   : step.isWaitedFor ? "start-up waits for its report"
                                      : "";
        timeline.rows.push_back(std::move(row));
    }
    return timeline;
}

}  // namespace ProcMgr::Pmctl
