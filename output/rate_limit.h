// How much of the output of one service may pass within a second.
#pragma once

#include <chrono>
#include <cstdint>

#include "main/common/clock.h"

namespace ProcMgr::Output {

// One thread.
class RateLimit {
public:
    explicit RateLimit(uint64_t perSecond) : perSecond_(perSecond) {}

    // Whether `amount` may pass at the time `now`. After a refusal nothing passes until the second
    // is over, so that what is left out is in one piece.
    bool Take(SteadyTime now, uint64_t amount) {
        if (now - begin_ >= std::chrono::seconds(1)) {
            begin_ = now;
            used_ = 0;
        }
        if (used_ <= perSecond_) {
            used_ += amount;
        }
        return used_ <= perSecond_;
    }

    // Whether Take() would refuse any amount.
    bool IsUsedUp(SteadyTime now) const {
        return used_ > perSecond_ && now - begin_ < std::chrono::seconds(1);
    }

private:
    uint64_t perSecond_;
    uint64_t used_ = 0;  // within the second; above perSecond_ after a refusal
    SteadyTime begin_{};
};

}  // namespace ProcMgr::Output
