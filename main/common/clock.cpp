#include "main/common/clock.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace ProcMgr {

void SleepFor(std::chrono::nanoseconds duration) {
    constexpr int64_t NANOSECONDS = 1'000'000'000;
    timespec rest{.tv_sec = duration.count() / NANOSECONDS,
                  .tv_nsec = duration.count() % NANOSECONDS};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

}  // namespace ProcMgr
