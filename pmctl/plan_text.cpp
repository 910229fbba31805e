#include "pmctl/plan_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "pmctl/people.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t BAR_COLUMNS = 40;
constexpr size_t NAME_COLUMNS_MAX = 32;

std::string Joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

std::string Milliseconds(double number) {
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.1f ms", number);
    return text.data();
}

std::string AlignedRight(const std::string& text, size_t columns) {
    return std::string(columns - std::min(columns, text.size()), ' ') + text;
}

std::string ServiceLine(const PlannedService& service) {
    std::string text = "  " + Printable(service.name);
    if (service.fate != Fate::STARTED) {
        return text + ": not started: " + Printable(service.why) + '\n';
    }
    if (!service.depends.empty()) {
        text += ", after " + Printable(Joined(service.depends));
    }
    return text + (service.isReporting ? "; waited for until it reports RUNNING\n" : "\n");
}

std::string PriorityText(const BootPlan& plan) {
    std::string text;
    for (const PriorityApp& app : plan.priorityApps) {
        text += "  " + Printable(app.name) + " (priority " + std::to_string(app.priority) + ")" +
                (app.why.empty() ? "\n" : ": not started: " + Printable(app.why) + "\n");
    }
    return text.empty() ? text : "priority applications, before the services:\n" + text;
}

// A bar of the picture: '.' before its turn, '-' launch, '=' until it runs, '#' where start-up
// waits.
std::string Bar(const ForecastStep& step, double end) {
    const auto column = [end](double time) {
        const double part = end > 0 ? time / end * static_cast<double>(BAR_COLUMNS) : 0;
        return std::min(static_cast<size_t>(std::lround(part)), BAR_COLUMNS);
    };
    std::string bar(BAR_COLUMNS, ' ');
    const auto fill = [&bar, &column](double from, double to, char mark) {
        std::fill(bar.begin() + static_cast<std::ptrdiff_t>(column(from)),
                  bar.begin() + static_cast<std::ptrdiff_t>(column(to)), mark);
    };
    fill(0, step.released, '.');
    fill(step.released, step.started, '-');
    fill(step.started, step.running, step.isWaitedFor ? '#' : '=');
    return bar;
}

std::string CriticalText(const Forecast& forecast) {
    std::string text = "critical path, " + Milliseconds(forecast.end) + ":\n";
    for (const CriticalPart& part : CriticalPath(forecast)) {
        const double share = forecast.end > 0 ? part.milliseconds / forecast.end * 100 : 0;
        text += AlignedRight(Milliseconds(part.milliseconds), 14) + ' ' +
                AlignedRight(std::to_string(std::lround(share)) + " %", 5) + "  " +
                Printable(part.what) + '\n';
    }
    return text;
}

}  // namespace

std::string PlanText(const BootPlan& plan) {
    std::string text = "boot of " + Printable(plan.file) + '\n';
    for (const std::string& note : plan.notes) {
        text += "note: " + Printable(note) + '\n';
    }
    text += PriorityText(plan);
    size_t batch = 0;
    bool hasOthers = false;
    for (const PlannedService& service : plan.services) {
        if (service.batch > batch) {
            batch = service.batch;
            text += "batch " + std::to_string(batch) + ":\n";
        } else if (service.batch == 0 && !hasOthers) {
            hasOthers = true;
            text += "not started:\n";
        }
        text += ServiceLine(service);
    }
    const auto started =
        std::count_if(plan.services.begin(), plan.services.end(),
                      [](const PlannedService& service) { return service.fate == Fate::STARTED; });
    return text + std::to_string(started) + " of " + std::to_string(plan.services.size()) +
           " services are started\n";
}

std::string ForecastText(const Forecast& forecast) {
    size_t columns = 4;
    for (const ForecastStep& step : forecast.steps) {
        columns = std::max(columns, std::min(Printable(step.name).size(), NAME_COLUMNS_MAX));
    }
    std::string text = "predicted times from the start of the first service\n" +
                       Padded("name", columns) + "       started       running\n";
    for (const ForecastStep& step : forecast.steps) {
        text += Padded(Fitted(Printable(step.name), columns, "..."), columns) +
                AlignedRight(Milliseconds(step.started), 14) +
                AlignedRight(Milliseconds(step.running), 14) + " |" + Bar(step, forecast.end) +
                "|" + (step.isGuess ? " estimated\n" : "\n");
    }
    text += ". before its turn  - launch  = until it runs  # start-up waits for its report\n";
    return text + CriticalText(forecast);
}

}  // namespace ProcMgr::Pmctl
