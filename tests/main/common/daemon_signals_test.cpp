#include "main/common/daemon_signals.h"

#include "main/common/boot_trace.h"
#include "tests/support/isolated.h"
#include "tests/support/raw_peer.h"

namespace ProcMgr {
namespace {

using Signals = IsolatedTest;

bool IsReadable(int fd) {
    return Tests::IsReadable(fd, std::chrono::milliseconds(0));
}

TEST_F(Signals, AContinueThatComesEarlyIsRemembered) {
    Isolated([] {
        InstallContinueSignal();
        EXPECT_FALSE(IsContinueReceived());
        const uint64_t before = ReadBootCounter();
        raise(SIGCONT);
        EXPECT_TRUE(IsContinueReceived());
        EXPECT_GE(GetContinueCounter(), before);
        EXPECT_LE(GetContinueCounter(), ReadBootCounter());
    });
}

TEST_F(Signals, StopRequestAndChildExitWakeTheirThreadsAndASecondStopEndsTheProcess) {
    for (const int signal : {SIGTERM, SIGINT}) {
        const int status = RunIsolated([signal] {
            sigset_t all;  // a mask that was inherited
            sigfillset(&all);
            sigprocmask(SIG_SETMASK, &all, nullptr);
            InstallSignals();
            const int fd = GetSignalEventFd();
            ASSERT_GE(fd, 0);
            raise(SIGPIPE);
            EXPECT_FALSE(IsReadable(fd));

            EXPECT_EQ(TakeChildSignal(), 0);
            kill(getpid(), SIGCHLD);
            EXPECT_TRUE(IsReadable(GetChildSignalFd()));
            EXPECT_EQ(TakeChildSignal(), getpid());
            EXPECT_FALSE(IsReadable(GetChildSignalFd()));
            EXPECT_FALSE(IsReadable(fd)) << "the handler has run";
            UnblockChildSignal();
            raise(SIGCHLD);
            uint64_t count = 0;
            EXPECT_GT(read(fd, &count, sizeof count), 0);
            EXPECT_FALSE(IsReadable(fd));
            EXPECT_FALSE(IsStopRequested());

            raise(signal);
            EXPECT_TRUE(IsStopRequested());
            WaitForStopEvent();
            EXPECT_FALSE(IsReadable(fd)) << "of the other thread";
            if (!testing::Test::HasFailure()) {
                raise(signal);
            }
        });
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + signal) << status;
    }
}

}  // namespace
}  // namespace ProcMgr
