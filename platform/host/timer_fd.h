// A timer that makes a descriptor readable, for epoll sets. Used by the messaging library to end
// silent peers and by the heartbeat library to look for overdue beats.
#pragma once

#include <sys/timerfd.h>

#include <algorithm>
#include <chrono>
#include <ratio>

#include "wire/unique_fd.h"

namespace PlatformHost {

// Not thread-safe, but Set may be called while another thread waits for the descriptor.
class TimerFd {
public:
    using Time = std::chrono::steady_clock::time_point;

    // False when the kernel refuses, with errno set.
    bool Create() {
        fd_ = Wire::UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        return fd_.IsValid();
    }
    int Fd() const { return fd_.Get(); }
    bool IsValid() const { return fd_.IsValid(); }
    void Close() { fd_.Reset(); }

    // The descriptor becomes unreadable, and readable at `when`; never for Time::max().
    void Set(Time when) const {
        using std::chrono::nanoseconds;
        itimerspec value{};
        if (when != Time::max()) {
            // At least 1 ns: a value of 0 would stop the timer.
            const auto count =
                std::max(nanoseconds(when.time_since_epoch()), nanoseconds(1)).count();
            constexpr nanoseconds::rep SECOND = std::nano::den;
            value.it_value = {count / SECOND, count % SECOND};
        }
        timerfd_settime(fd_.Get(), TFD_TIMER_ABSTIME, &value, nullptr);
    }

private:
    Wire::UniqueFd fd_;
};

}  // namespace PlatformHost
