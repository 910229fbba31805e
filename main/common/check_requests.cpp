#include "main/common/check_requests.h"

#include <utility>

namespace ProcMgr {

void CheckRequests::Stop() {
    const LockGuard lock(mutex_);
    isStopped_ = true;
    changed_.NotifyAll();
}

bool CheckRequests::IsStopped() const {
    const LockGuard lock(mutex_);
    return isStopped_;
}

void CheckRequests::RequestCompletion() {
    {
        const LockGuard lock(mutex_);
        isIncomplete_ = true;
        if (isPassing_) {
            return;
        }
    }
    changed_.NotifyOne();
}

bool CheckRequests::TryBeginNow() {
    const LockGuard lock(mutex_);
    if (!isUrgent_ || isPassing_ || isAwaited_ || isStopped_) {
        return false;
    }
    isUrgent_ = false;
    isPassing_ = true;
    return true;
}

void CheckRequests::End() {
    const LockGuard lock(mutex_);
    isPassing_ = false;
    if (isAwaited_) {
        changed_.NotifyOne();
    }
}

void CheckRequests::PostponeWake() {
    {
        const LockGuard lock(mutex_);
        const SteadyTime now = clock_.Now();
        isBusy_ = true;
        postponed_ = postponed_.value_or(now);
        if (now - *postponed_ < POSTPONE_MAX) {
            return;
        }
        postponed_.reset();
    }
    changed_.NotifyOne();
}

bool CheckRequests::WakeWhenQuiet() {
    {
        const LockGuard lock(mutex_);
        if (!postponed_) {
            return false;
        }
        if (std::exchange(isBusy_, false)) {
            return true;
        }
        postponed_.reset();
    }
    changed_.NotifyOne();
    return false;
}

std::optional<SteadyTime> CheckRequests::WaitForAny(SteadyTime end) {
    UniqueLock lock(mutex_);
    const auto isWanted = [this]()
                              PROCMGR_REQUIRES(mutex_) { return IsAnyRequested() || isStopped_; };
    if (!clock_.WaitUntil(changed_, lock, end, isWanted)) {
        return std::nullopt;
    }
    return requested_.value_or(clock_.Now());
}

bool CheckRequests::WaitForNow(SteadyTime end) {
    UniqueLock lock(mutex_);
    const auto isWanted = [this]() PROCMGR_REQUIRES(mutex_) {
        return (isUrgent_ && !isPassing_) || isIncomplete_;
    };
    clock_.WaitUntil(changed_, lock, end,
                     [&]() PROCMGR_REQUIRES(mutex_) { return isWanted() || isStopped_; });
    return isWanted() && !isStopped_;
}

bool CheckRequests::Begin() {
    UniqueLock lock(mutex_);
    isAwaited_ = true;
    changed_.Wait(lock, [this]() PROCMGR_REQUIRES(mutex_) { return !isPassing_ || isStopped_; });
    isAwaited_ = false;
    if (isStopped_) {
        return false;
    }
    isPassing_ = true;
    isUrgent_ = false;
    isForCycle_ = false;
    requested_.reset();
    return true;
}

bool CheckRequests::TakeCompletion() {
    const LockGuard lock(mutex_);
    return std::exchange(isIncomplete_, false);
}

// PostponeWake() or WakeWhenQuiet() follow an extra pass, and the requests that a pass makes. The
// thread is woken without the lock, because it takes the lock.
void CheckRequests::Set(bool isUrgent) {
    {
        const LockGuard lock(mutex_);
        requested_ = requested_ ? requested_ : clock_.Now();
        isUrgent_ = isUrgent_ || isUrgent;
        if (isUrgent || isPassing_ || std::exchange(isForCycle_, true)) {
            return;
        }
    }
    changed_.NotifyOne();
}

}  // namespace ProcMgr
