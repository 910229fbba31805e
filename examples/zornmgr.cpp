// zornmgr [--state-file PATH]
//
// Replaces the access manager in the demo: reports its own state, and logs the daemon's reports
// about the other services. With --state-file each report is also appended to PATH as one line:
// name, pid, gid, report type, result, separated by blanks.
#include <sys/types.h>
#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "agent/owner_channel.h"
#include "examples/service.h"
#include "message/enum_names.h"

namespace {

using ProcMgr::Message::AppStateInfo;

void LogReport(const AppStateInfo& info) {
    syslog(LOG_INFO, "%s, pid %u: %s", info.appName.c_str(), info.pid,
           ProcMgr::GetReportAppStateTypeStr(info.reportType).c_str());
}

void Append(std::ofstream& file, const AppStateInfo& info) {
    file << info.appName << ' ' << info.pid << ' ' << info.gid << ' '
         << ProcMgr::GetReportAppStateTypeStr(info.reportType) << ' ' << info.result << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    Example::TakeStopSignals();
    openlog("zornmgr", LOG_PID, LOG_USER);
    std::ofstream stateFile;
    if (argc == 3 && std::strcmp(argv[1], "--state-file") == 0) {
        stateFile.open(argv[2], std::ios::app);
    } else if (argc != 1) {
        std::fprintf(stderr, "usage: zornmgr [--state-file PATH]\n");
        return 2;
    }
    if (stateFile.fail()) {
        syslog(LOG_ERR, "cannot write %s", argv[2]);
        return 1;
    }

    ProcMgr::Agent::OwnerChannel channel("zornmgr");
    // Set before Attach, so that no report is missed. The function runs on the channel's thread and
    // is the only user of the file.
    channel.OnAppState([&](const std::vector<AppStateInfo>& infos) {
        for (const AppStateInfo& info : infos) {
            LogReport(info);
            if (stateFile.is_open()) {
                Append(stateFile, info);
            }
        }
    });
    if (!channel.Attach(std::chrono::seconds(10))) {
        syslog(LOG_WARNING, "the daemon's pipe is not there yet, trying on");
    }
    channel.ReportRunning();
    channel.StartHeartbeat();

    Example::WaitForStop();
    channel.ReportTerminating();
    syslog(LOG_INFO, "ends");
    return 0;
}
