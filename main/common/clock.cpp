#include "main/common/clock.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace ProcMgr {
namespace {

class SystemClock final : public Clock {
public:
    SteadyTime Now() override { return std::chrono::steady_clock::now(); }
    void Sleep(std::chrono::nanoseconds duration) override { SleepFor(duration); }
    bool WaitUntil(Condition& condition, UniqueLock& lock, SteadyTime end,
                   const std::function<bool()>& isDone) override {
        return condition.WaitUntil(lock, end, isDone);
    }
};

}  // namespace

void SleepFor(std::chrono::nanoseconds duration) {
    constexpr int64_t NANOSECONDS = 1'000'000'000;
    timespec rest{.tv_sec = duration.count() / NANOSECONDS,
                  .tv_nsec = duration.count() % NANOSECONDS};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

Clock& Clock::System() {
    static SystemClock clock;
    return clock;
}

}  // namespace ProcMgr
