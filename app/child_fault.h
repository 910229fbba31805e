// Why a child has ended before it executed its program: one word that the child writes into memory
// which it shares with the daemon. The status endpoint shows it. A child with memory of its own
// writes into its copy, so nothing is known of it but its exit status.
#pragma once

#include <atomic>
#include <cstdint>

namespace ProcMgr::App {

struct ChildFault {
    enum class Step : uint8_t {
        NONE,       // the program has been executed, or nothing is known
        NO_USER,    // the user database does not have the user
        GROUPS,     // the groups of the user could not be taken from the user database
        SETGROUPS,  // these calls have failed
        SETGID,
        SETUID,
        EXECUTE,
    };

    Step step = Step::NONE;
    int32_t error = 0;  // errno of the call
};

// The word. The daemon clears it before it creates a child, and reads it when it has collected the
// exit of that child; in between only the child writes it.
class ChildFaultNote {
public:
    void Clear() { word_.store(0, std::memory_order_relaxed); }
    // In the child: a single store.
    void Write(ChildFault::Step step, int error) {
        word_.store(
            static_cast<uint32_t>(step) << STEP_SHIFT | (static_cast<uint32_t>(error) & ERROR_MASK),
            std::memory_order_release);
    }
    ChildFault Read() const {
        const uint32_t word = word_.load(std::memory_order_acquire);
        return {static_cast<ChildFault::Step>(word >> STEP_SHIFT),
                static_cast<int32_t>(word & ERROR_MASK)};
    }

private:
    static constexpr unsigned STEP_SHIFT = 24;
    static constexpr uint32_t ERROR_MASK = (uint32_t{1} << STEP_SHIFT) - 1;
    // A child must not wait for a lock of the library for atomic values.
    static_assert(std::atomic<uint32_t>::is_always_lock_free);

    std::atomic<uint32_t> word_{0};
};

}  // namespace ProcMgr::App
