// vintor: the smallest service that reports its own state.
#include <syslog.h>

#include <chrono>

#include "agent/owner_channel.h"
#include "examples/service.h"

int main() {
    Example::TakeStopSignals();
    openlog("vintor", LOG_PID, LOG_USER);

    ProcMgr::Agent::OwnerChannel channel("vintor");
    if (!channel.Attach(std::chrono::seconds(10))) {
        syslog(LOG_WARNING, "the daemon's pipe is not there yet, trying on");
    }
    // Initialise here: services that depend on this one are started after the report.
    channel.ReportRunning();
    channel.StartHeartbeat();

    Example::WaitForStop();
    channel.ReportTerminating();
    syslog(LOG_INFO, "ends");
    return 0;
}
