// planner: an owner service. It asks the daemon to start two applications, queries their states,
// restarts one of them and ends both; after a pause it repeats that.
#include <syslog.h>

#include <chrono>
#include <string>
#include <vector>

#include "agent/owner_channel.h"
#include "examples/service.h"

namespace {

using ProcMgr::Agent::OwnerChannel;
using std::chrono::seconds;

constexpr seconds STEP{1};
constexpr seconds PAUSE{10};
constexpr seconds ANSWER_TIME{5};
const std::vector<std::string> APPS = {"app_a", "app_b"};

void LogStates(const std::vector<ProcMgr::Message::AppStateInfo>& infos) {
    for (const auto& info : infos) {
        syslog(LOG_INFO, "%s, pid %u: %s", info.appName.c_str(), info.pid,
               ProcMgr::GetReportAppStateTypeStr(info.reportType).c_str());
    }
}

void Query(OwnerChannel& channel) {
    const auto answer = channel.QueryAppState(APPS, ANSWER_TIME);
    if (!answer) {
        syslog(LOG_WARNING, "no answer to the query");
        return;
    }
    for (const auto& [name, status] : *answer) {
        syslog(LOG_INFO, "%s %s", name.c_str(), status == 0 ? "lives" : "does not live");
    }
}

// Runs one step; true when a stop signal has come.
bool Step(OwnerChannel& channel, int step) {
    switch (step) {
        case 0:
            channel.StartApps({{APPS[0], {}, {}}, {APPS[1], {}, {}}});
            return Example::WaitForStop(STEP);
        case 1:
            Query(channel);
            return Example::WaitForStop(STEP);
        case 2:
            channel.RestartApps({{APPS[0], {}, {}}});
            return Example::WaitForStop(STEP);
        default:
            channel.TermApps({{APPS[0]}, {APPS[1]}});
            return Example::WaitForStop(PAUSE);
    }
}

}  // namespace

int main() {
    constexpr int STEPS = 4;
    Example::TakeStopSignals();
    openlog("planner", LOG_PID, LOG_USER);

    OwnerChannel channel("planner");
    channel.OnAppState(LogStates);
    if (!channel.Attach(seconds(10))) {
        syslog(LOG_WARNING, "the daemon's pipe is not there yet, trying on");
    }
    channel.ReportRunning();
    for (int step = 0; !Step(channel, step); step = (step + 1) % STEPS) {
    }
    channel.ReportTerminating();
    syslog(LOG_INFO, "ends");
    return 0;
}
