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
            return isLive ? "nothing, it runs" : Soon("its end is handled");
        case STARTING:
            if (!isLive) {
                return Soon("its end is handled");
            }
            return app.facts->isReporting ? "is RUNNING when it reports" : Soon("is found running");
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
        return "nothing, it is not started any more";
    }
    return service.app.history.refusal == StartRefusal::NONE
               ? "is started now"
               : "nothing, the first start is not repeated";
}

std::string Explanation::NextWaiting(const AppView& app) const {
    const std::vector<std::string_view> unmet = GetUnmet(app);
    if (unmet.empty()) {
        return awaited_ == nullptr
                   ? "is started in its turn"
                   : "is started in its turn, after " + awaited_->facts->name + " reports RUNNING";
    }
    const AppView* only = unmet.size() == 1 ? Find(unmet.front()) : nullptr;
    const bool isReport = only != nullptr && only->facts->isReporting;
    return "is started when " + Join(unmet) +
           (isReport            ? " reports RUNNING"
            : unmet.size() == 1 ? " runs"
                                : " run");
}

std::string Explanation::NextOfEnded(const AppView& app) const {
    if (app.isInList && app.isLaunching) {
        return "is restarted now";
    }
    if (app.isInList && app.mayRestart) {
        return Soon("is restarted");
    }
    if (app.facts->policy == RESTART_ON_FAILURE) {
        return "nothing, after five restarts within a minute the policy on-failure gives up";
    }
    return "nothing, the policy is " + app.facts->policy;
}

std::string Explanation::NextOfTerminating(const AppView& app, bool isKillSent) const {
    if (app.pid == 0) {
        return Soon("its end is handled");
    }
    if (app.history.changeReason == ChangeReason::REPORTED) {
        return "nothing until it ends";
    }
    if (isKillSent) {
        return "nothing, SIGKILL has been sent";
    }
    const std::string left = std::to_string(MillisecondsLeft(app));
    return app.isKilled ? "SIGKILL in " + left + " ms unless it ends"
                        : "counts as RUNNING again in " + left + " ms unless it ends";
}

std::string Explanation::NextOfRestarting(const AppView& app) const {
    if (app.isRestartStarted) {
        return Soon("is found running");
    }
    if (app.pid == 0) {
        return Soon("its new process is started");
    }
    return app.isKillSent ? "its new process is started when the old one has ended"
                          : "SIGKILL in " + std::to_string(MillisecondsLeft(app)) +
                                " ms unless it ends, then its new process is started";
}

std::string Explanation::NextOfApplication(const Entry& application) const {
    const AppView& app = application.view.app;
    const bool isLive = app.pid > 0;
    switch (app.state) {
        case RUNNING:
            return isLive ? "nothing, it runs" : Soon("its end is handled");
        case STARTING:
            return Soon(isLive ? "is found running" : "its end is handled");
        case TERMINATING:
            return NextOfTerminating(app, app.isKillSent);
        case RESTARTING:
            return NextOfRestarting(app);
        case TERMINATED:
            return "nothing, its owner decides";
        default:
            return "is started now";
    }
}

}  // namespace ProcMgr::Status
