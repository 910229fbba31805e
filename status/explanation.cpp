#include "status/explanation.h"

#include <algorithm>
#include <cstddef>

#include "status/words.h"

namespace ProcMgr::Status {
namespace {

using App::AppView;
using App::ChangeReason;
using App::StartRefusal;

// The number of names that a text lists.
constexpr size_t NAMES_MAX = 8;

bool IsAwaited(const AppView& app) {
    return app.facts->isReporting && app.state == STARTING && app.pid > 0;
}

std::string WhyRefused(const AppView& app) {
    return "could not be started: " + DescribeRefusal(app.history.refusal, *app.facts);
}

// The words for the last exit; empty before the first one.
std::string WhyEnded(const AppView& app) {
    const App::LastExit& exit = app.history.lastExit;
    if (exit.pid == 0) {
        return "";
    }
    if (exit.fault.step != App::ChildFault::Step::NONE) {
        return DescribeChildFault(exit.fault, *app.facts);
    }
    if (!exit.cause) {
        return DescribeExit(exit.status);
    }
    return *exit.cause == ChangeReason::REPORTED ? "has ended, as it had announced"
                                                 : "was stopped on request";
}

// An application that has had no process yet.
std::string WhyNoProcess(const AppView& app) {
    if (app.history.refusal != StartRefusal::NONE) {
        return WhyRefused(app);
    }
    if (app.isInList) {
        return "is being started";
    }
    return app.history.waiting == SteadyTime() ? "its start has not been requested"
                                               : "could not be started: see the log";
}

}  // namespace

Explanation::Explanation(const Snapshot& snapshot)
    : snapshot_(snapshot),
      outlook_(snapshot.services),
      isStopping_(!snapshot.phases.empty() && snapshot.phases.back().phase == Phase::STOPPING) {
    for (const Entry& entry : snapshot.services) {
        const AppView& app = entry.view.app;
        if (awaited_ == nullptr && IsAwaited(app)) {
            awaited_ = &app;
        }
    }
}

std::string Explanation::Join(const std::vector<std::string_view>& names) {
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), NAMES_MAX); ++i) {
        text.append(i == 0 ? "" : ", ").append(names[i]);
    }
    if (names.size() > NAMES_MAX) {
        text += " and " + std::to_string(names.size() - NAMES_MAX) + " more";
    }
    return text;
}

std::string Explanation::FindLost(const AppView& app) const {
    const auto& depends = app.facts->depends;
    const auto lost = std::find_if(depends.begin(), depends.end(), [this](const std::string& name) {
        return !outlook_.WillRun(name);
    });
    return lost == depends.end() ? std::string() : *lost;
}

std::vector<std::string_view> Explanation::GetUnmet(const AppView& app) const {
    std::vector<std::string_view> unmet;
    for (const std::string& name : app.facts->depends) {
        const ServiceView* depend = outlook_.Find(name);
        if (depend == nullptr || depend->app.pid == 0 || IsAwaited(depend->app)) {
            unmet.push_back(name);
        }
    }
    return unmet;
}

std::string Explanation::WhyService(const Entry& service) const {
    const AppView& app = service.view.app;
    return app.state == INITSTATE ? WhyNotStarted(service.view) : WhyChanging(app);
}

std::string Explanation::WhyApplication(const Entry& application) const {
    return WhyChanging(application.view.app);
}

std::string Explanation::WhyWaiting(const AppView& app) const {
    const std::string lost = FindLost(app);
    if (!lost.empty()) {
        const bool isKnown = outlook_.Find(lost) != nullptr;
        return "waits for its turn; " + lost + ", which it depends on, " +
               (isKnown ? "will not run" : "is not known");
    }
    const std::vector<std::string_view> unmet = GetUnmet(app);
    return unmet.empty() ? "waits for its turn" : "waits for " + Join(unmet);
}

std::string Explanation::WhyNotStarted(const ServiceView& service) const {
    constexpr const char* TOO_LATE = "start-up was stopped before its turn";
    switch (service.verdict) {
        case StartVerdict::WAITING:
            return WhyWaiting(service.app);
        case StartVerdict::RELEASED:
            if (service.app.history.refusal != StartRefusal::NONE) {
                return WhyRefused(service.app);
            }
            return isStopping_ ? TOO_LATE : "is being started";
        case StartVerdict::EXCLUDED:
            return "excluded by the boot command line";
        case StartVerdict::IN_CYCLE:
            return "is in a dependency cycle";
        case StartVerdict::DEPENDENCY:
            return (service.blocker.empty() ? "a service" : service.blocker) +
                   ", which it depends on, does not run";
        case StartVerdict::ABANDONED:
            return TOO_LATE;
    }
    return "";
}

std::string Explanation::WhyChanging(const AppView& app) const {
    const bool hasEnded = app.pid == 0 && app.history.lastExit.pid != 0;
    switch (app.state) {
        case RUNNING:
            return hasEnded ? WhyEnded(app) : "";
        case STARTING:
            if (hasEnded) {
                return WhyEnded(app);
            }
            return app.facts->isReporting ? "waits for its own report" : "is being started";
        case TERMINATING:
            return app.history.changeReason == ChangeReason::REPORTED
                       ? "has reported that it ends"
                       : "is being stopped on request";
        case RESTARTING:
            return "is being restarted on request";
        case TERMINATED:
            return app.history.refusal == StartRefusal::NONE ? WhyEnded(app) : WhyRefused(app);
        default:
            return WhyNoProcess(app);
    }
}

}  // namespace ProcMgr::Status
