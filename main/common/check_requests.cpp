#include "main/common/check_requests.h"

#include <utility>

namespace ProcMgr {
namespace {

// The check thread is woken when no exit has come for this time.
constexpr std::chrono::milliseconds QUIET_TIME{1};

}  // namespace

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
        lastPostponed_ = clock_.Now();
        postponed_ = postponed_.value_or(lastPostponed_);
        if (lastPostponed_ - *postponed_ < (isForCycle_ ? CHECK_PERIOD : POSTPONE_MAX)) {
            return;
        }
        postponed_.reset();
    }
    changed_.NotifyOne();
}

bool CheckRequests::WakeWhenQuiet() {
    {
        const LockGuard lock(mutex_);
        if (!postponed_ || clock_.Now() - lastPostponed_ < QUIET_TIME) {
            return postponed_.has_value();
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
    isWoken_ = false;
    requested_.reset();
    return true;
}

bool CheckRequests::TakeCompletion() {
    const LockGuard lock(mutex_);
    return std::exchange(isIncomplete_, false);
}

// Wakes nobody in a pass: after one of the wait thread PostponeWake() follows, and the check thread
// looks again itself. The thread is woken without the lock, because it takes the lock.
void CheckRequests::Request() {
    {
        const LockGuard lock(mutex_);
        NoteRequest();
        isForCycle_ = true;
        if (isPassing_ || std::exchange(isWoken_, true)) {
            return;
        }
    }
    changed_.NotifyOne();
}

void CheckRequests::RequestNow() {
    const LockGuard lock(mutex_);
    NoteRequest();
    isUrgent_ = true;
}

void CheckRequests::RequestLater() {
    const LockGuard lock(mutex_);
    NoteRequest();
}

void CheckRequests::NoteRequest() {
    requested_ = requested_ ? requested_ : clock_.Now();
}

}  // namespace ProcMgr
