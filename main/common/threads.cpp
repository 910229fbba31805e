#include "main/common/threads.h"

#include <pthread.h>

#include <utility>

#include "wire/blocked_signals.h"

namespace ProcMgr {
std::thread StartThread(const char* name, std::function<void()> body) {
    const Wire::BlockedSignals blocked;
    return std::thread([name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name);
        body();
    });
}

void NamedThread::Start(std::function<void()> body) {
    thread_ = StartThread(name_, [state = state_, body = std::move(body)] {
        body();
        const LockGuard lock(state->mutex);
        state->hasEnded = true;
        state->ended.NotifyAll();
    });
}

bool NamedThread::Join(SteadyTime end) {
    if (!thread_.joinable()) {
        return true;
    }
    {
        UniqueLock lock(state_->mutex);
        const auto hasEnded = [this]() PROCMGR_REQUIRES(state_->mutex) { return state_->hasEnded; };
        if (!state_->ended.WaitUntil(lock, end, hasEnded)) {
            thread_.detach();
            return false;
        }
    }
    thread_.join();
    return true;
}

}  // namespace ProcMgr
