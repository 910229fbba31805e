// The small parts that all rooms use: locks, waiting, paths, the pipe of the child errors, and
// calls of the messaging library that are made again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <csignal>
#include <thread>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "main/common/muxa_retry.h"
#include "main/common/paths.h"
#include "main/common/proc_mgr_env.h"
#include "tests/fakes/fake_muxa.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::FakeMuxa;
using Call = FakeMuxa::Call;
using std::chrono::steady_clock;

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

TEST(StandardizationPath, TakesUpTo4096CharactersAndFailsWithoutAChange) {
    std::string out;
    EXPECT_TRUE(StandardizationPath(std::string(4096 - 13, '/') + "proc/./../dev", out));
    EXPECT_EQ(out, "/dev");
    for (const std::string& in : {std::string(4097, '/'), std::string(), std::string("no/such")}) {
        EXPECT_FALSE(StandardizationPath(in, out)) << in;
        EXPECT_EQ(out, "/dev");
    }
}

TEST(SleepFor, GoesOnAfterInterruptions) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    struct itimerval timer {
        {0, 3000}, { 0, 3000 }
    };
    setitimer(ITIMER_REAL, &timer, nullptr);
    const auto start = steady_clock::now();
    SleepFor(60ms);
    EXPECT_GE(steady_clock::now() - start, 60ms);
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(ProcMgrEnv, ChildErrorPipeNeverBlocksAWriterAndStaysOutOfPrograms) {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.CreateChildErrorPipe();
    const int fds[] = {env.GetChildErrorReadFd(), env.GetChildErrorWriteFd()};
    for (const int fd : fds) {
        ASSERT_GE(fd, 0);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    ASSERT_NE(fcntl(fds[1], F_GETFL) & O_NONBLOCK, 0);
    env.CloseChildErrorPipe();
    EXPECT_EQ(env.GetChildErrorReadFd() + env.GetChildErrorWriteFd(), -2);
    for (const int fd : fds) {
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

// The calls are made side by side, because each takes one or two seconds.
TEST(MuxaRetry, RetriesOneFailureUpToTheLastAttempt) {
    FakeMuxa::Get().Reset();
    MuxaRequest request;
    MuxaResponse response;
    const struct {
        Call call;
        int retried;
        int other;  // a failure after which another call of the library is retried
        size_t attempts;
        std::chrono::milliseconds pause;
        std::function<int()> run;
    } cases[] = {
        {Call::SEND, -11, -16, 401, 5ms, [&] { return ProcMgrMuxaSendRequest(7, &request); }},
        {Call::RESPOND, -11, -16, 401, 5ms, [&] { return ProcMgrMuxaSendResponse(7, &response); }},
        {Call::CLOSE, -16, -11, 10, 100ms, [] { return ProcMgrMuxaClosePipe(7); }},
    };
    std::vector<std::thread> threads;
    for (const auto& test : cases) {
        threads.emplace_back([&test] {
            FakeMuxa::Get().Push(test.call, test.other);
            EXPECT_EQ(test.run(), test.other);
            FakeMuxa::Get().Push(test.call, test.retried);
            FakeMuxa::Get().Push(test.call, 3);
            EXPECT_EQ(test.run(), 3);
            FakeMuxa::Get().SetDefault(test.call, test.retried);
            const auto begin = steady_clock::now();
            EXPECT_EQ(test.run(), test.retried);
            EXPECT_EQ(FakeMuxa::Get().Count(test.call), 3 + test.attempts);
            EXPECT_GE(steady_clock::now() - begin, (test.attempts - 1) * test.pause);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace ProcMgr
