// Launches of real programs, looked at from outside through /proc.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "app/process_launcher.h"
#include "main/log.h"
#include "main/proc_mgr_env.h"
#include "main/signals.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/fake_access_manager.h"
#include "tests/fakes/log_capture.h"
#include "tests/main/isolated.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using Environment = std::map<std::string, std::string>;

// A process's environment as it was executed; that of this one for "self".
Environment EnvironmentOf(const std::string& pid) {
    Environment result;
    std::istringstream in(ReadFile("/proc/" + pid + "/environ"));
    for (std::string entry; std::getline(in, entry, '\0');) {
        const size_t equals = entry.find('=');
        result[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
    return result;
}

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
        ProcMgrEnv::GetInstance().SetHome("/home/default");
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
        ASSERT_TRUE(app.StartProcess(launcher_));
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

TEST_F(LaunchTest, GeneralApplicationGetsItsEnvironmentAndLimits) {
    ManifestData data = SleepingService();
    data.env = {
        {"ALPHA", "1"}, {"HOME", "/from/manifest"}, {"OWNER_NAME", "nobody"}, {"EMPTY", ""}};
    data.heartbeat = true;
    data.nice = 5;
    data.setRtPrio = "true";
    GeneralAppInfo app("app", Manifest(data), "vintor");
    StartSleeping(app);
    EXPECT_EQ(app.state_, INITSTATE);
    Environment expected = EnvironmentOf("self");
    // The manifest's entries come after HOME and before the owner.
    expected.insert_or_assign("HOME", "/from/manifest");
    expected.insert_or_assign("ALPHA", "1");
    expected.insert_or_assign("EMPTY", "");
    expected.insert_or_assign("OWNER_NAME", "vintor");
    expected.insert_or_assign("PROC_PLANE", "PLANE_DATA");
    expected.insert_or_assign("GRP_HB", "1");
    EXPECT_EQ(EnvironmentOf(std::to_string(pid_)), expected);
    EXPECT_TRUE(LogCapture::ContainsPart(
        6, "s][BOOT_TRACE][PM] Start generalApp success appName=app, child_pid=" +
               std::to_string(pid_) + ", isDelayCoreAffinity_=0"));
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(pid_)), getpriority(PRIO_PROCESS, 0) + 5);
    struct rlimit limit {};
    ASSERT_EQ(prlimit(pid_, RLIMIT_RTPRIO, nullptr, &limit), 0);
    const std::string reports = Reports();
    if (reports.empty()) {
        EXPECT_EQ(limit.rlim_cur, 99U);
    } else {  // not every place lets root raise a limit
        EXPECT_EQ(reports, "app=app,pid=" + std::to_string(pid_) + ",prlimit failed,errno=1;");
    }
}

TEST_F(LaunchTest, BaseServiceGetsItsEnvironment) {
    ManifestData data = SleepingService();
    data.env = {{"HOME", "/from/manifest"}, {"IS_RESTART", "7"}};
    data.startupEntry = "/entry";
    BaseAppInfo app(Manifest(data));
    app.reportType_ = TERMINATED_ABNORMAL_EXIT;
    StartSleeping(app);
    EXPECT_EQ(app.state_, STARTING);
    Environment expected = EnvironmentOf("self");
    expected.insert_or_assign("HOME", "/home/default");
    expected.insert_or_assign("IS_RESTART", "1");
    expected.insert_or_assign("STARTUP_ENTRY_PATH", "/entry");
    EXPECT_EQ(EnvironmentOf(std::to_string(pid_)), expected);
    EXPECT_TRUE(LogCapture::ContainsPart(
        6, "s][BOOT_TRACE][PM] Start baseApp success appName=svc, binPath=/bin/sleep, pid=" +
               std::to_string(pid_) + ", isDelayCoreAffinity_=0"));
}

// Runs as a child's body, over a user database of its own.
void CheckIdentity() {
    BindFile("root:x:0:0::/root:/bin/sh\nsvc:x:4242:4300::/:/bin/sh\n", "/etc/passwd");
    BindFile("root:x:0:\nmain:x:4300:\nfirst:x:4301:svc\nsecond:x:4302:svc\n", "/etc/group");
    ManifestData data = SleepingService();
    data.uid = 4242;
    data.gid = 4299;
    ProcessLauncher launcher;
    GeneralAppInfo app("app", Manifest(data), "EM");
    ASSERT_TRUE(app.StartProcess(launcher));
    while (StatusValue(app.pid_, "Name") != "sleep") {
        usleep(1000);
    }
    EXPECT_EQ(StatusValue(app.pid_, "Uid"), "4242\t4242\t4242\t4242");
    EXPECT_EQ(StatusValue(app.pid_, "Gid"), "4299\t4299\t4299\t4299");
    std::istringstream in(StatusValue(app.pid_, "Groups"));
    const std::set<int> groups{std::istream_iterator<int>(in), {}};
    EXPECT_EQ(groups, (std::set<int>{4300, 4301, 4302}));
    kill(app.pid_, SIGKILL);

    data.uid = 4243;  // not in the database, but the program's owner
    MountTmpfs("/mnt");
    data.bin = "/mnt/sleep";
    std::filesystem::copy_file("/bin/sleep", data.bin);
    ASSERT_EQ(chown(data.bin.c_str(), data.uid, 0), 0);
    BaseAppInfo unknown(Manifest(data));
    ASSERT_TRUE(unknown.StartProcess(launcher));
    int status = 0;
    waitpid(unknown.pid_, &status, 0);
    EXPECT_EQ(status, 1 << 8);
}

TEST_F(LaunchTest, IdentityIsTheManifestsWithTheUsersGroups) {
    const int status = RunIsolated([] {
        alarm(20);
        CheckIdentity();
    });
    EXPECT_EQ(status, 0);
    EXPECT_THAT(Reports(), testing::MatchesRegex("app=svc,pid=[0-9]+,getpwuid is null;"));
}

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
    for (int i = 0; i < 500 && CountDescriptors(pid_) > 3; ++i) {
        usleep(10000);
    }
    EXPECT_EQ(CountDescriptors(pid_), 3U) << "only its standard streams";
    close(fd);
}

TEST_F(LaunchTest, WhatCannotBeExecutedIsReportedAndExitsWith1) {
    ManifestData data = SomeService();
    for (const char* path : {"/no/such/program", "/etc/passwd"}) {
        data.bin = path;
        BaseAppInfo refused(Manifest(data));
        EXPECT_FALSE(refused.StartProcess(launcher_));
        EXPECT_EQ(refused.pid_, 0);
    }
    data.bin = "/etc";
    BaseAppInfo app(Manifest(data));
    ASSERT_TRUE(app.StartProcess(launcher_));
    int status = 0;
    waitpid(app.pid_, &status, 0);
    EXPECT_EQ(status, 1 << 8);
    EXPECT_EQ(Reports(), "app=svc,pid=" + std::to_string(app.pid_) +
                             ",execv failed, execPath_=/etc, errno=" + std::to_string(EACCES) +
                             ";");
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
    // A library that logs in the child is what could find the log's lock taken.
    Fakes::FakeAccessManager::Get().SetHook(
        [](const AppConfig&) { ProcMgrLog(LOG_DEBUG, "child"); });
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
        EXPECT_TRUE(app.StartProcess(launcher_));
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
