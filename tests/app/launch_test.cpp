// Launches of real programs, observed through /proc, and the reader of the child error pipe.
#include <fcntl.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "app/child_error_reader.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/fake_access_manager.h"
#include "tests/support/wait.h"

namespace ProcMgr::App {
namespace {

class LaunchTest : public AppTest {
protected:
    LaunchTest() { ProcMgrEnv::GetInstance().CreateChildErrorPipe(); }
    ~LaunchTest() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    }

    // Starts a service that sleeps and waits until its program runs.
    void StartSleeping() {
        ManifestData data = SomeService();
        data.bin = "/bin/sleep";
        data.args = {"60"};
        BaseAppInfo app(Manifest(data));
        ASSERT_TRUE(StartNow(app));
        pid_ = app.pid_;
        ASSERT_TRUE(Tests::WaitUntil([&] { return StatusValue(pid_, "Name") == "sleep"; }));
    }

    pid_t pid_ = -1;
};

TEST_F(LaunchTest, ALaunchKeepsTheSignalMaskAndPassesOnNoDescriptor) {
    sigset_t mask;
    sigset_t before;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    sigaddset(&mask, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &mask, &before);
    // Not close-on-exec, like a descriptor of a careless library.
    const int fd = open("/dev/null", O_RDONLY);
    StartSleeping();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&mask, signal)) << signal;
    }
    // The program may have its libraries open for a moment.
    EXPECT_TRUE(Tests::WaitUntil([&] {
        const std::filesystem::directory_iterator entries(ProcPath(pid_, "fd"));
        return std::distance(begin(entries), end(entries)) == 3;
    })) << "only its standard streams";
    close(fd);
}

TEST_F(LaunchTest, AFullErrorPipeDoesNotStopAChild) {
    const int fd = ProcMgrEnv::GetInstance().GetChildErrorWriteFd();
    while (write(fd, "x", 1) == 1) {
    }
    Fakes::FakeAccessManager::Get().PushInit(-1, EIO);
    StartSleeping();
}

TEST_F(LaunchTest, TheErrorPipeIsReadInPiecesOfABuffer) {
    const std::string text(1000, 'x');
    ASSERT_EQ(write(ProcMgrEnv::GetInstance().GetChildErrorWriteFd(), text.data(), text.size()),
              1000);
    LogCapture::Clear();
    ChildErrorReader::ReadChildErrInfo();
    ChildErrorReader::ReadChildErrInfo();
    ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    ChildErrorReader::ReadChildErrInfo();  // without a pipe it returns at once
    const std::string received = "pm receive child process errinfo size=";
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{LOG_WARNING, received + "899, err: " + text.substr(0, 899)},
                     {LOG_WARNING, received + "101, err: " + text.substr(0, 101)}}));
}

TEST_F(LaunchTest, AChildNeverWaitsForALockOfAnotherThread) {
    std::atomic<bool> isRunning{true};
    std::thread logger([&] {
        while (isRunning) {
            ProcMgrLog(LOG_DEBUG, "noise %d", 1);
        }
    });
    std::thread allocator([&] {
        while (isRunning) {
            EXPECT_EQ(std::string(5000, 'x').size(), 5000U);
        }
    });
    ManifestData data = SomeService();
    data.env = {{"A", std::string(500, 'a')}};
    alarm(60);  // ends the test when a launch hangs
    for (int i = 0; i < 300; ++i) {
        GeneralAppInfo app = GeneralApp(data);
        int status = -1;
        EXPECT_TRUE(StartNow(app));
        waitpid(app.pid_, &status, 0);
        EXPECT_EQ(status, 0);
    }
    alarm(0);
    isRunning = false;
    logger.join();
    allocator.join();
}

}  // namespace
}  // namespace ProcMgr::App
