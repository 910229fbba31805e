// When a check is due that runs every so many cycles of CheckThread. Cycles may be left out: it is
// due at the first one that is not. One thread uses it.
#pragma once

#include <cstdint>

namespace ProcMgr {

class CycleTimer {
public:
    // Due at cycle `first`, counted from 0, and every `period` cycles after that.
    constexpr CycleTimer(uint64_t first, uint64_t period) : next_(first), period_(period) {}

    uint64_t GetNext() const { return next_; }

    // Whether it is due at `cycle`; if so, the next time follows.
    bool TakeDue(uint64_t cycle) {
        if (cycle < next_) {
            return false;
        }
        next_ += ((cycle - next_) / period_ + 1) * period_;
        return true;
    }

private:
    uint64_t next_;
    const uint64_t period_;
};

}  // namespace ProcMgr
