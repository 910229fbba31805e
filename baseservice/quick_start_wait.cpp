#include "baseservice/quick_start_wait.h"

#include <unistd.h>

#include <chrono>
#include <string>

#include "main/common/boot_trace.h"
#include "main/common/daemon_signals.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr {
namespace {

constexpr std::chrono::milliseconds SIGNAL_PERIOD{5};
constexpr int PASSES_MAX = 2000;
// The marker file is looked for at every 20th pass: its file system may take long to answer.
constexpr int MARKER_PASSES = 20;

bool HasMarker() {
    return access(QUICK_START_MARKER, F_OK) == 0;
}

}  // namespace

void QuickStartWait::WaitContinueSignal() {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    if (!env.IsQuickStart()) {
        ProcMgrLog(LOG_INFO, "is not quickstart, so not wait for continue signal");
        return;
    }
    const bool isContinued = IsContinued();
    const std::string now = BootStrace(BOOT_TRACE_TAG);
    const uint64_t counter = GetContinueCounter();
    if (isStopping_) {
        ProcMgrLog(LOG_INFO, "%s wait for continue startup ended by a stop", now.c_str());
    } else if (isContinued) {
        ProcMgrLog(LOG_INFO, "%s wait success for continue startup, catch continue signal time=%s",
                   now.c_str(), counter == 0 ? "" : BootStraceAt(counter, BOOT_TRACE_TAG).c_str());
    } else {
        ProcMgrLog(LOG_INFO, "%s wait for continue startup timeout!!", now.c_str());
    }
    env.SetQuickStart(false);
}

bool QuickStartWait::IsContinued() {
    for (int pass = 1; !IsContinueReceived(); ++pass) {
        if (pass > PASSES_MAX) {
            return false;
        }
        clock_.Sleep(SIGNAL_PERIOD);
        const bool isMarked = pass % MARKER_PASSES == 0 && HasMarker();
        if (isMarked || isStopping_) {
            break;
        }
    }
    return true;
}

}  // namespace ProcMgr
