// Launches of real programs, looked at from outside through /proc.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "app/base_app_info.h"
#include "app/general_app_info.h"
#include "app/process_launcher.h"
#include "main/common/daemon_signals.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/fake_access_manager.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;

size_t CountDescriptors(pid_t pid) {
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

ManifestData SleepingService() {
    ManifestData data = SomeService();
    data.bin = "/bin/sleep";
    data.args = {"60"};
    return data;
}

class LaunchTest : public IsolatedTest {
protected:
    void SetUp() override {
        IsolatedTest::SetUp();
        LogCapture::Clear();
        ProcMgrEnv::GetInstance().CreateChildErrorPipe();
    }
    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        ProcMgrEnv::GetInstance().CloseChildErrorPipe();
        Fakes::FakeAccessManager::Get().Reset();
    }

    // Starts a program that sleeps and waits until it is the one that runs.
    template <typename App>
    void StartSleeping(App& app) {
        ASSERT_TRUE(StartNow(app, launcher_));
        pid_ = app.pid_;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (StatusValue(pid_, "Name") != "sleep" && std::chrono::steady_clock::now() < end) {
            usleep(1000);
        }
        ASSERT_EQ(StatusValue(pid_, "Name"), "sleep");
    }

    // What children have reported so far.
    static std::string Reports() {
        const int fd = ProcMgrEnv::GetInstance().GetChildErrorReadFd();
        fcntl(fd, F_SETFL, O_NONBLOCK);
        char buffer[4096];
        const ssize_t length = read(fd, buffer, sizeof buffer);
        return length < 0 ? std::string() : std::string(buffer, static_cast<size_t>(length));
    }

    ProcessLauncher launcher_;
    pid_t pid_ = -1;
};

TEST_F(LaunchTest, SignalsAndDescriptorsOfTheDaemonStayBehind) {
    InstallContinueSignal();
    InstallSignals();
    sigset_t mask;
    sigset_t before;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    sigaddset(&mask, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &mask, &before);
    // As a careless library would open it.
    const int fd = open("/dev/null", O_RDONLY);
    BaseAppInfo app(Manifest(SleepingService()));
    StartSleeping(app);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&mask, signal)) << signal;
    }
    EXPECT_EQ(StatusValue(pid_, "SigBlk"), "0000000000000000");
    EXPECT_EQ(StatusValue(pid_, "SigCgt"), "0000000000000000");
    const uint64_t ignored = std::stoull(StatusValue(pid_, "SigIgn"), nullptr, 16);
    for (const int signal : CHANGED_SIGNALS) {
        EXPECT_EQ(ignored >> (signal - 1) & 1, 0U) << signal;
    }
    // For a moment the program may still have its libraries open.
    size_t descriptors = CountDescriptors(pid_);
    for (int i = 0; i < 500 && descriptors > 3; ++i) {
        usleep(10000);
        descriptors = CountDescriptors(pid_);
    }
    EXPECT_EQ(descriptors, 3U) << "only its standard streams";
    close(fd);
}

TEST_F(LaunchTest, AFullErrorPipeDoesNotStopAChild) {
    const int fd = ProcMgrEnv::GetInstance().GetChildErrorWriteFd();
    while (write(fd, "x", 1) == 1) {
    }
    Fakes::FakeAccessManager::Get().PushInit(-1, EIO);
    BaseAppInfo app(Manifest(SleepingService()));
    StartSleeping(app);
}

TEST_F(LaunchTest, OtherThreadsNeverHoldAChildUp) {
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
    alarm(60);  // ends a launch that hangs, and the test with it
    for (int i = 0; i < 300; ++i) {
        GeneralAppInfo app("app", Manifest(data), "EM");
        int status = -1;
        EXPECT_TRUE(StartNow(app, launcher_));
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
