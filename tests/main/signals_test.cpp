#include "main/signals.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>

#include "main/boot_trace.h"
#include "tests/main/isolated.h"

namespace ProcMgr {
namespace {

using Signals = IsolatedTest;

bool IsReadable(int fd) {
    struct pollfd poller {
        fd, POLLIN, 0
    };
    return poll(&poller, 1, 0) == 1;
}

TEST_F(Signals, AContinueThatComesEarlyIsRemembered) {
    const int status = RunIsolated([] {
        InstallContinueSignal();
        EXPECT_FALSE(IsContinueReceived());
        EXPECT_EQ(GetContinueCounter(), 0U);
        const uint64_t before = ReadBootCounter();
        raise(SIGCONT);
        EXPECT_TRUE(IsContinueReceived());
        const uint64_t first = GetContinueCounter();
        EXPECT_GE(first, before);
        EXPECT_LE(first, ReadBootCounter());
        usleep(2000);
        raise(SIGCONT);
        EXPECT_TRUE(IsContinueReceived());
        EXPECT_GT(GetContinueCounter(), first);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Signals, StopRequestAndChildExitWakeTheEvent) {
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

            uint64_t buffer = 0;
            kill(getpid(), SIGCHLD);
            EXPECT_FALSE(IsReadable(fd)) << "only for the thread that takes it";
            TakeChildSignals();
            EXPECT_TRUE(IsReadable(fd));
            EXPECT_GT(read(fd, &buffer, sizeof buffer), 0);
            EXPECT_FALSE(IsReadable(fd));
            EXPECT_FALSE(IsStopRequested());

            raise(signal);
            EXPECT_TRUE(IsStopRequested());
            EXPECT_TRUE(IsReadable(fd));
        });
        EXPECT_EQ(status, 0);
    }
}

TEST_F(Signals, TheSecondStopEndsTheProcess) {
    const int status = RunIsolated([] {
        InstallSignals();
        raise(SIGTERM);
        raise(SIGTERM);
        _exit(3);
    });
    EXPECT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
}

}  // namespace
}  // namespace ProcMgr
