#include "app/reaper.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <utility>

#include "app/exit_status.h"
#include "main/common/daemon_signals.h"
#include "main/common/log.h"

namespace ProcMgr {
namespace {

// The longest time between two looks of the reaper itself, for the case that a library also holds
// up the thread of ExitCheck.
constexpr int LOOK_MILLISECONDS = 60'000;
// The longest wait for a signal when the caller has asked for a call soon.
constexpr int SOON_MILLISECONDS = 1;

using SignalFds = std::array<pollfd, 2>;

SignalFds WaitForSignal(int milliseconds) {
    SignalFds fds{pollfd{GetChildSignalFd(), POLLIN, 0}, pollfd{GetSignalEventFd(), POLLIN, 0}};
    poll(fds.data(), fds.size(), milliseconds);
    return fds;
}

// Waits for a signal and takes it. Returns the pid of the child that the signal names; 0 without
// one.
pid_t TakeSignal(int milliseconds) {
    const auto [child, event] = WaitForSignal(milliseconds);
    if (event.revents != 0) {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t size = read(event.fd, &count, sizeof(count));
    }
    return child.revents != 0 ? TakeChildSignal() : 0;
}

// The zombie stays until Free().
std::optional<siginfo_t> FindExit(idtype_t type, pid_t pid) {
    siginfo_t exit{};
    const int result = waitid(type, static_cast<id_t>(pid), &exit, WEXITED | WNOHANG | WNOWAIT);
    return result == 0 && exit.si_pid != 0 ? std::optional(exit) : std::nullopt;
}

// WNOHANG: code of a library may have collected the zombie already, and the pid may belong to
// another child, which is still alive.
void Free(pid_t pid) {
    waitpid(pid, nullptr, WNOHANG);
}

}  // namespace

void ExitCheck::Run() {
    if (FindExit(P_ALL, 0)) {
        WakeSignalEvent();
    }
}

Reaper::Reaper(std::vector<ExitSink> sinks, std::function<void()> onExit,
               std::function<bool()> onWake)
    : sinks_(std::move(sinks)), onExit_(std::move(onExit)), onWake_(std::move(onWake)) {}

// The exit that a signal names is collected alone. A look at all children holds a lock of the
// kernel that the new process needs, for a time that grows with their number, so the look for
// further exits comes a millisecond later, or when another signal comes. The pid is freed then,
// too: that takes the kernel up to 90 us, and the new process often waits for this core.
void Reaper::Run(const std::atomic<bool>& running) {
    if (GetChildSignalFd() < 0) {
        UnblockChildSignal();
    }
    while (running) {
        CollectExits();
        const pid_t pid = TakeSignal(onWake_() ? SOON_MILLISECONDS : LOOK_MILLISECONDS);
        const std::optional<siginfo_t> exit = pid > 0 ? FindExit(P_PID, pid) : std::nullopt;
        if (exit) {
            Store(*exit);
            WaitForSignal(SOON_MILLISECONDS);
            Free(pid);
        }
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR: WaitThread exit now.");
}

void Reaper::CollectExits() {
    while (const std::optional<siginfo_t> exit = FindExit(P_ALL, 0)) {
        Store(*exit);
        Free(exit->si_pid);
    }
}

// The exit is stored while the zombie still holds its pid, and the pid is freed afterwards. So a
// thread that finds no stored exit in a record may signal the pid of the record.
void Reaper::Store(const siginfo_t& exit) {
    const pid_t pid = exit.si_pid;
    const int32_t status = App::ToWaitStatus(exit);
    const bool isStored = std::any_of(sinks_.begin(), sinks_.end(),
                                      [&](const ExitSink& sink) { return sink(pid, status); });
    if (!isStored) {
        ProcMgrLog(LOG_WARNING, "PROCMGR: can not find app, pid=%d", pid);
    }
    onExit_();
}

}  // namespace ProcMgr
