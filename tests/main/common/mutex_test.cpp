#include "main/common/mutex.h"

#include <gtest/gtest.h>

namespace ProcMgr {
namespace {

TEST(MutexDeathTest, NobodyIsWaitedForUnderALock) {
#if defined(PROCMGR_CHECKED)
    Mutex mutex;
    Mutex other;
    Condition condition;
    MayWait("a peer");
    EXPECT_DEATH(
        {
            const LockGuard lock(mutex);
            MayWait("a peer");
        },
        "a mutex is held where the thread may wait for a peer");
    EXPECT_DEATH(
        {
            const LockGuard lock(other);
            UniqueLock waiting(mutex);
            condition.Wait(waiting, [] { return true; });
        },
        "a mutex is held where the thread may wait for a condition");
    UniqueLock lock(mutex);
    lock.Unlock();
    MayWait("a peer");
#else
    GTEST_SKIP() << "checked builds only: debug, asan, tsan";
#endif
}

}  // namespace
}  // namespace ProcMgr
