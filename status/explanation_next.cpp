// What the daemon will do next about an application.
#include <algorithm>
#include <chrono>

#include "app/app_spec.h"
#include "status/explanation.h"

namespace ProcMgr::Status {
namespace {

using App::AppView;
using App::ChangeReason;
using App::StartRefusal;

constexpr const char* EXIT_HANDLED = "its exit will be handled";
constexpr const char* FOUND_RUNNING = "will be found running";

// Added to what the next check pass does.
std::string Soon(const std::string& text) {
    return text + " within 30 ms";
}

}  // namespace

int64_t Explanation::MillisecondsLeft(const AppView& app) const {
    const SteadyTime end = app.history.changed + std::chrono::milliseconds(app.termTimeout);
    return std::max<int64_t>(
        std::chrono::ceil<std::chrono::milliseconds>(end - snapshot_.clock.steady).count(), 0);
}

std::string Explanation::NextOfService(const Entry& service) const {
    const AppView& app = service.view.app;
    const bool isLive = app.pid > 0;
    if (isStopping_ && app.state != TERMINATING) {
        return isLive ? "SIGTERM: the daemon stops" : "nothing, the daemon stops";
    }
    switch (app.state) {
        case RUNNING:
            return isLive ? "nothing, it runs" : Soon(EXIT_HANDLED);
        case STARTING:
            if (!isLive) {
                return Soon(EXIT_HANDLED);
            }
            return app.facts->isReporting ? "will be RUNNING when it reports" : Soon(FOUND_RUNNING);
        case TERMINATING:
            return NextOfTerminating(app, MillisecondsLeft(app) == 0);
        case TERMINATED:
            return NextOfEnded(app);
        default:
            return NextOfUnstarted(service.view);
    }
}

std::string Explanation::NextOfUnstarted(const ServiceView& service) const {
    if (service.verdict == StartVerdict::WAITING) {
        return NextWaiting(service.app);
    }
    if (service.verdict != StartVerdict::RELEASED) {
        return "nothing, it will not be started";
    }
    return service.app.history.refusal == StartRefusal::NONE
               ? "is being started"
               : "nothing, the first start is not repeated";
}

std::string Explanation::NextWaiting(const AppView& app) const {
    if (const std::string lost = FindLost(app); !lost.empty()) {
        return "nothing, it will be refused in its turn: " + lost + " does not run";
    }
    const std::vector<std::string_view> unmet = GetUnmet(app);
    if (unmet.empty()) {
        const std::string inTurn = "will be started in its turn";
        return awaited_ == nullptr
                   ? inTurn
                   : inTurn + ", after " + awaited_->facts->name + " reports RUNNING";
    }
    const bool isReport = unmet.size() == 1 && outlook_.Find(unmet.front())->app.facts->isReporting;
    return "will be started when " + Join(unmet) +
           (isReport            ? " reports RUNNING"
            : unmet.size() == 1 ? " runs"
                                : " run");
}

std::string Explanation::NextOfEnded(const AppView& app) const {
    if (app.isInList && app.isLaunching) {
        return "is being restarted";
    }
    if (app.isInList && app.mayRestart) {
        return Soon("will be restarted");
    }
    if (app.facts->policy == RESTART_ON_FAILURE) {
        return "nothing, the policy on-failure gave up after five attempts within a minute";
    }
    return "nothing, the policy is " + app.facts->policy;
}

std::string Explanation::NextOfTerminating(const AppView& app, bool isKillSent) const {
    if (app.pid == 0) {
        return Soon(EXIT_HANDLED);
    }
    if (app.history.changeReason == ChangeReason::REPORTED) {
        return "nothing until it ends";
    }
    if (isKillSent) {
        return "nothing, SIGKILL has been sent";
    }
    const std::string left = std::to_string(MillisecondsLeft(app));
    return app.isKilled ? "SIGKILL in " + left + " ms unless it ends"
                        : "will count as RUNNING again in " + left + " ms unless it ends";
}

std::string Explanation::NextOfRestarting(const AppView& app) const {
    if (app.isRestartStarted) {
        return Soon(FOUND_RUNNING);
    }
    if (app.pid == 0) {
        return Soon("its new process will be started");
    }
    return app.isKillSent ? "its new process will be started when the old one has ended"
                          : "SIGKILL in " + std::to_string(MillisecondsLeft(app)) +
                                " ms unless it ends, then its new process will be started";
}

std::string Explanation::NextOfApplication(const Entry& application) const {
    const AppView& app = application.view.app;
    const bool isLive = app.pid > 0;
    const bool isGone = app.state == INITSTATE || app.state == TERMINATED;
    if (isStopping_ && isGone) {
        return "nothing, the daemon stops";
    }
    switch (app.state) {
        case RUNNING:
            return isLive ? "nothing, it runs" : Soon(EXIT_HANDLED);
        case STARTING:
            return Soon(isLive ? FOUND_RUNNING : EXIT_HANDLED);
        case TERMINATING:
            return NextOfTerminating(app, app.isKillSent);
        case RESTARTING:
            return NextOfRestarting(app);
        default:
            return app.isLaunching ? "is being started" : "nothing, its owner decides";
    }
}

}  // namespace ProcMgr::Status
