#include "main/common/daemon_signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <iterator>

#include "main/common/boot_trace.h"
#include "main/common/log.h"
#include "wire/blocked_signals.h"

namespace ProcMgr {
namespace {

// The exit status that shells print for a process that a signal has ended is this value plus the
// signal number.
constexpr int EXIT_SIGNALED = 128;

std::atomic<bool> g_continueReceived{false};
std::atomic<uint64_t> g_continueCounter{0};
std::atomic<bool> g_stopRequested{false};
std::atomic<bool> g_hangUp{false};
std::atomic<int> g_eventFd{-1};
std::atomic<int> g_childFd{-1};
std::atomic<int> g_stopFd{-1};
// The earlier dispositions of the fault signals, for example a sanitizer's; in the order of
// FAULT_SIGNALS.
struct sigaction g_faultActions[std::size(Wire::FAULT_SIGNALS)];
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void OnChildSignal(int /*signal*/) {
    WakeSignalEvent();
}

void OnStopSignal(int signal) {
    if (g_stopRequested.exchange(true)) {
        _exit(EXIT_SIGNALED + signal);
    }
    WakeStopEvent();
}

void OnHangUp(int /*signal*/) {
    g_hangUp = true;
    WakeSignalEvent();
}

// Restores the earlier disposition and raises the signal again. The signal is blocked while this
// handler runs, so it is delivered when the handler returns.
void OnFault(int signal) {
    WriteLogInSignal();
    // The kernel writes no core of a process whose memory a child had when it changed its user.
    prctl(PR_SET_DUMPABLE, 1);
    for (size_t i = 0; i < std::size(Wire::FAULT_SIGNALS); ++i) {
        if (Wire::FAULT_SIGNALS[i] == signal) {
            sigaction(signal, &g_faultActions[i], nullptr);
        }
    }
    raise(signal);
}

void Install(int signal, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

void InstallFaultSignals() {
    struct sigaction action {};
    action.sa_handler = OnFault;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < std::size(Wire::FAULT_SIGNALS); ++i) {
        sigaction(Wire::FAULT_SIGNALS[i], &action, &g_faultActions[i]);
    }
}

// Keeps errno, because handlers call it.
void WakeEvent(int fd) {
    const int saved = errno;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof(one));
    errno = saved;
}

sigset_t ChildSignal() {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    return child;
}

}  // namespace

void InstallContinueSignal() {
    Install(SIGCONT, OnContinueSignal, SA_RESTART);
}

void OnContinueSignal(int /*signal*/) {
    g_continueCounter = ReadBootCounter();
    g_continueReceived = true;
}

bool IsContinueReceived() {
    return g_continueReceived;
}

uint64_t GetContinueCounter() {
    return g_continueCounter;
}

void InstallSignals() {
    g_eventFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    g_stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Install(SIGPIPE, SIG_IGN, 0);
    Install(SIGTERM, OnStopSignal, SA_RESTART);
    Install(SIGINT, OnStopSignal, SA_RESTART);
    Install(SIGCHLD, OnChildSignal, SA_RESTART | SA_NOCLDSTOP);
    Install(SIGHUP, OnHangUp, SA_RESTART);
    InstallFaultSignals();
    // The signals may be blocked by inheritance from the process that has started the daemon.
    sigset_t changed;
    sigemptyset(&changed);
    for (const int signal : CHANGED_SIGNALS) {
        sigaddset(&changed, signal);
    }
    pthread_sigmask(SIG_UNBLOCK, &changed, nullptr);
    const sigset_t child = ChildSignal();
    pthread_sigmask(SIG_BLOCK, &child, nullptr);
    g_childFd = signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK);
}

int GetChildSignalFd() {
    return g_childFd;
}

void UnblockChildSignal() {
    const sigset_t child = ChildSignal();
    pthread_sigmask(SIG_UNBLOCK, &child, nullptr);
}

pid_t TakeChildSignal() {
    signalfd_siginfo info{};
    const ssize_t size = read(g_childFd, &info, sizeof(info));
    return size == sizeof(info) ? static_cast<pid_t>(info.ssi_pid) : 0;
}

bool IsStopRequested() {
    return g_stopRequested;
}

bool TakeHangUp() {
    return g_hangUp.exchange(false);
}

int GetSignalEventFd() {
    return g_eventFd;
}

void WakeSignalEvent() {
    WakeEvent(g_eventFd);
}

// poll() and not a read that waits: a handler interrupts it, also under sanitizers, which run a
// handler only between or in calls that they know to wait.
void WaitForStopEvent() {
    pollfd event{g_stopFd, POLLIN, 0};
    if (poll(&event, 1, -1) > 0) {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t size = read(event.fd, &count, sizeof(count));
    }
}

void WakeStopEvent() {
    WakeEvent(g_stopFd);
}

}  // namespace ProcMgr
