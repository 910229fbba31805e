// The stop of the general applications: the SIGTERMs, the wait for exits and the last kills.
#include <algorithm>
#include <chrono>
#include <csignal>

#include "app/scheduler_workers.h"
#include "app/signals.h"
#include "generalapp/general_apps.h"
#include "main/common/log.h"

namespace ProcMgr {
namespace {

// After the last termination time-out: how long the check thread may take to kill the applications
// that have not ended, and then the kernel to end them, before the stop goes on without them.
constexpr std::chrono::milliseconds CHECK_PATIENCE{200};
constexpr std::chrono::milliseconds KILL_PATIENCE{300};

}  // namespace

void GeneralApps::StopAll() {
    UniqueLock lock(mutex_);
    isStopping_ = true;
    const SteadyTime now = std::chrono::steady_clock::now();
    SteadyTime end = now;
    for (const auto& [name, app] : generalAppMap_) {
        // A restart whose old process has ended is ended, too: its new process must not start.
        if (!app->IsAlive() && app->GetState() != RESTARTING) {
            continue;
        }
        app->TermProcess();
        app->ChangeState(TERMINATING, App::ChangeReason::TERMINATION);
        app->BeginTermination(now);
        due_.Add(*app);
        // The check thread kills the process after its time-out even if its manifest forbids kills.
        app->forceTerm_ = true;
        end = std::max(end, now + std::chrono::milliseconds(app->termTimeout_));
    }
    checks_.Request();
    const auto isOver = [this]() PROCMGR_REQUIRES(mutex_) { return processes_.IsEmpty(); };
    if (exited_.WaitUntil(lock, end + CHECK_PATIENCE, isOver)) {
        return;
    }
    KillAll();
    if (!exited_.WaitUntil(lock, end + CHECK_PATIENCE + KILL_PATIENCE, isOver)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : some general apps have not ended after SIGKILL, give up");
    }
}

void GeneralApps::KillAll() {
    for (const auto& [name, app] : generalAppMap_) {
        if (app->IsAlive()) {
            App::TermRqdSubProc(name, app->pid_);
            App::SendSignal(SIGKILL, name, app->pid_);
        }
    }
}

}  // namespace ProcMgr
