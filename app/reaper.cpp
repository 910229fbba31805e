#include "app/reaper.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "app/exit_status.h"
#include "main/common/daemon_signals.h"
#include "main/common/log.h"

namespace ProcMgr {
namespace {

// The longest time between two looks for exits: a library that installs a SIGCHLD handler of its
// own may take a signal from the reaper, and the exit is then found at the next look.
constexpr int LOOK_MILLISECONDS = 5000;
// The longest wait for a signal when the caller has asked for a call soon.
constexpr int SOON_MILLISECONDS = 1;

void WaitForSignal(int milliseconds) {
    pollfd event{GetSignalEventFd(), POLLIN, 0};
    if (poll(&event, 1, milliseconds) > 0) {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t size = read(event.fd, &count, sizeof(count));
    }
}

}  // namespace

Reaper::Reaper(std::vector<ExitSink> sinks, std::function<void()> onExit,
               std::function<bool()> onWake)
    : sinks_(std::move(sinks)), onExit_(std::move(onExit)), onWake_(std::move(onWake)) {}

void Reaper::Run(const std::atomic<bool>& running) {
    TakeChildSignals();
    while (running) {
        CollectExits();
        WaitForSignal(onWake_() ? SOON_MILLISECONDS : LOOK_MILLISECONDS);
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR: WaitThread exit now.");
}

void Reaper::CollectExits() {
    for (;;) {
        siginfo_t exit{};
        const int result = waitid(P_ALL, 0, &exit, WEXITED | WNOHANG | WNOWAIT);
        if (result != 0 || exit.si_pid == 0) {
            return;
        }
        Collect(exit);
    }
}

// The exit is stored while the zombie still holds its pid, and the pid is freed afterwards. So a
// thread that finds no stored exit in a record may signal the pid of the record.
void Reaper::Collect(const siginfo_t& exit) {
    const pid_t pid = exit.si_pid;
    const int32_t status = App::ToWaitStatus(exit);
    const bool isStored = std::any_of(sinks_.begin(), sinks_.end(),
                                      [&](const ExitSink& sink) { return sink(pid, status); });
    if (!isStored) {
        ProcMgrLog(LOG_WARNING, "PROCMGR: can not find app, pid=%d", pid);
    }
    // Before the zombie is freed, which takes the kernel up to 90 us.
    onExit_();
    // WNOHANG: code of a library may have collected the zombie already, and the pid may belong to
    // another child, which is still alive.
    waitpid(pid, nullptr, WNOHANG);
}

}  // namespace ProcMgr
