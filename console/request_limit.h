// How many requests the users of the console may send: the daemon's threads and its log are behind
// it.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <map>

namespace ProcMgr::Console {

// One bucket of tokens for each user: full at first, and refilled in time. For one thread.
class RequestLimit {
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr int AT_ONCE = 50;
    static constexpr std::chrono::milliseconds REFILL{50};  // the time of one request
    static constexpr size_t USERS_MAX = 256;

    // False when the user has to wait.
    bool Take(uid_t user, Time now) {
        if (fullAt_.size() >= USERS_MAX) {
            std::erase_if(fullAt_, [=](const auto& entry) { return entry.second <= now; });
        }
        if (fullAt_.size() >= USERS_MAX && !fullAt_.contains(user)) {
            return false;
        }
        Time& fullAt = fullAt_[user];
        const Time next = std::max(fullAt, now) + REFILL;
        if (next - now > AT_ONCE * REFILL) {
            return false;
        }
        fullAt = next;
        return true;
    }

private:
    std::map<uid_t, Time> fullAt_;  // when the bucket of the user is full again
};

}  // namespace ProcMgr::Console
