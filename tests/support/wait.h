// Waiting for a condition, for all tests: no test sleeps to let something happen.
#pragma once

#include <chrono>
#include <thread>

namespace ProcMgr::Tests {

// The one deadline of all waits. It is generous, because a test that succeeds never reaches it.
inline constexpr std::chrono::seconds PATIENCE{30};

// Sanitizers slow everything down: a limit on time that a test asserts is multiplied by this.
#ifdef PROCMGR_SANITIZED
inline constexpr int SLOWER = 5;
#else
inline constexpr int SLOWER = 1;
#endif

// Evaluates `condition` on this thread, about once per millisecond, until it holds. Returns its
// last value: false when it did not hold within `patience`.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds patience = PATIENCE) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace ProcMgr::Tests
