#include "main/common/check_requests.h"

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

bool CheckRequests::WaitForAny(SteadyTime end) {
    UniqueLock lock(mutex_);
    return clock_.WaitUntil(changed_, lock, end, [this]() PROCMGR_REQUIRES(mutex_) {
        return isRequested_ || isStopped_;
    });
}

bool CheckRequests::WaitForNow(SteadyTime end) {
    UniqueLock lock(mutex_);
    clock_.WaitUntil(changed_, lock, end,
                     [this]() PROCMGR_REQUIRES(mutex_) { return isUrgent_ || isStopped_; });
    return isUrgent_ && !isStopped_;
}

void CheckRequests::Begin(CheckPass pass) {
    const LockGuard lock(mutex_);
    isUrgent_ = false;
    isRequested_ = isRequested_ && pass == CheckPass::EXTRA;
}

void CheckRequests::Set(bool isUrgent) {
    const LockGuard lock(mutex_);
    if (isRequested_ && (isUrgent_ || !isUrgent)) {
        return;
    }
    isRequested_ = true;
    isUrgent_ = isUrgent_ || isUrgent;
    changed_.NotifyOne();
}

}  // namespace ProcMgr
