#include "main/common/clock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>

#include "main/common/paths.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr {
namespace {

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
    const auto start = std::chrono::steady_clock::now();
    SleepFor(std::chrono::milliseconds(60));
    const auto slept = std::chrono::steady_clock::now() - start;
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(slept, std::chrono::milliseconds(60));
    EXPECT_LT(slept, std::chrono::seconds(5));
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
    EXPECT_EQ(env.GetChildErrorReadFd(), -1);
    EXPECT_EQ(env.GetChildErrorWriteFd(), -1);
    for (const int fd : fds) {
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

}  // namespace
}  // namespace ProcMgr
