#include "main/proc_mgr_env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace ProcMgr {
namespace {

TEST(ProcMgrEnv, ChildErrorPipeNeverBlocksAWriterAndStaysOutOfPrograms) {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.CreateChildErrorPipe();
    const int readFd = env.GetChildErrorReadFd();
    const int writeFd = env.GetChildErrorWriteFd();
    ASSERT_GE(readFd, 0);
    ASSERT_GE(writeFd, 0);
    EXPECT_NE(fcntl(readFd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(writeFd, F_GETFD) & FD_CLOEXEC, 0);

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

}  // namespace
}  // namespace ProcMgr
