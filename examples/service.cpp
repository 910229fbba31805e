#include "examples/service.h"

#include <cerrno>
#include <csignal>
#include <ctime>

namespace Example {
namespace {

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

}  // namespace

void TakeStopSignals() {
    const sigset_t signals = StopSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

bool WaitForStop(std::chrono::milliseconds timeout) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timeout);
    const std::chrono::nanoseconds rest = timeout - seconds;
    const timespec time{.tv_sec = seconds.count(), .tv_nsec = rest.count()};
    const sigset_t signals = StopSignals();
    return sigtimedwait(&signals, nullptr, &time) > 0;
}

void WaitForStop() {
    const sigset_t signals = StopSignals();
    while (sigwaitinfo(&signals, nullptr) < 0 && errno == EINTR) {
    }
}

}  // namespace Example
