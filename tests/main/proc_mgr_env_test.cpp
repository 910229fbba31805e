#include "main/proc_mgr_env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace ProcMgr {
namespace {

TEST(ProcMgrEnv, OneInstanceWithItsDefaults) {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    EXPECT_EQ(&env, &ProcMgrEnv::GetInstance());
    EXPECT_EQ(env.GetPid(), -1);
    EXPECT_FALSE(env.IsQuickStart());
    EXPECT_EQ(env.GetChildErrorReadFd(), -1);
    EXPECT_EQ(env.GetChildErrorWriteFd(), -1);
    env.StorePid();
    EXPECT_EQ(env.GetPid(), getpid());
}

TEST(ProcMgrEnv, ChildErrorPipeNeverBlocksAWriterAndStaysOutOfPrograms) {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.CreateChildErrorPipe();
    const int readFd = env.GetChildErrorReadFd();
    const int writeFd = env.GetChildErrorWriteFd();
    ASSERT_GE(readFd, 0);
    ASSERT_GE(writeFd, 0);
    EXPECT_NE(fcntl(readFd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(writeFd, F_GETFD) & FD_CLOEXEC, 0);

    char buffer[8] = {};
    ASSERT_EQ(write(writeFd, "text", 4), 4);
    ASSERT_EQ(read(readFd, buffer, sizeof buffer), 4);
    EXPECT_STREQ(buffer, "text");
    ASSERT_NE(fcntl(writeFd, F_GETFL) & O_NONBLOCK, 0);
    const std::string page(4096, 'x');
    while (write(writeFd, page.data(), page.size()) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);

    env.CloseChildErrorPipe();
    EXPECT_EQ(env.GetChildErrorReadFd(), -1);
    EXPECT_EQ(env.GetChildErrorWriteFd(), -1);
    EXPECT_EQ(fcntl(readFd, F_GETFD), -1);
    EXPECT_EQ(fcntl(writeFd, F_GETFD), -1);
    env.CloseChildErrorPipe();
}

TEST(ProcMgrEnv, WithoutDescriptorsThereIsNoPipe) {
    struct rlimit before {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const struct rlimit none { 0, before.rlim_max };
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    ProcMgrEnv::GetInstance().CreateChildErrorPipe();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(ProcMgrEnv::GetInstance().GetChildErrorReadFd(), -1);
    EXPECT_EQ(ProcMgrEnv::GetInstance().GetChildErrorWriteFd(), -1);
}

}  // namespace
}  // namespace ProcMgr
