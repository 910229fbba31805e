// Why an application does not run, and what the daemon will do next, in words. Computed from a
// snapshot; one thread uses an object.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "status/snapshot.h"
#include "status/start_outlook.h"

namespace ProcMgr::Status {

// Whether the text of what comes next says that the daemon will do nothing by itself.
inline bool IsSettled(std::string_view next) {
    return next.starts_with("nothing");
}

class Explanation {
public:
    // `snapshot` must outlive this object and stay as it is.
    explicit Explanation(const Snapshot& snapshot);

    // Empty when it runs.
    std::string WhyService(const Entry& service) const;
    std::string WhyApplication(const Entry& application) const;
    std::string NextOfService(const Entry& service) const;
    std::string NextOfApplication(const Entry& application) const;

private:
    std::string WhyNotStarted(const ServiceView& service) const;
    std::string WhyWaiting(const App::AppView& app) const;
    std::string WhyChanging(const App::AppView& app) const;
    std::string NextOfUnstarted(const ServiceView& service) const;
    std::string NextWaiting(const App::AppView& app) const;
    std::string NextOfEnded(const App::AppView& app) const;
    std::string NextOfTerminating(const App::AppView& app, bool isKillSent) const;
    std::string NextOfRestarting(const App::AppView& app) const;
    static std::string Join(const std::vector<std::string_view>& names);
    // The dependencies that do not run yet.
    std::vector<std::string_view> GetUnmet(const App::AppView& app) const;
    // The first dependency that will not run; empty without one.
    std::string FindLost(const App::AppView& app) const;
    // How long the time-out of the termination still lasts; 0 when it is over.
    int64_t MillisecondsLeft(const App::AppView& app) const;

    const Snapshot& snapshot_;
    const StartOutlook outlook_;
    // The service that start-up waits for now; null without one.
    const App::AppView* awaited_ = nullptr;
    bool isStopping_ = false;
};

}  // namespace ProcMgr::Status
