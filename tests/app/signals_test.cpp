#include "app/signals.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"
#include "tests/main/isolated.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;

class AppSignalsTest : public IsolatedTest {
protected:
    void SetUp() override {
        IsolatedTest::SetUp();
        LogCapture::Clear();
    }
};

TEST_F(AppSignalsTest, EachSignalHasItsLine) {
    const std::pair<int, std::string> cases[] = {
        {SIGTERM, "Successfully term appName=svc"},
        {SIGKILL, "Successfully kill appName=svc"},
        {SIGINT, "Successfully interrupt appName=svc"},
        {SIGUSR1, "Successfully send 10 to appName=svc"},
    };
    for (const auto& [signal, text] : cases) {
        WaitingChild child;
        const std::string id = std::to_string(child.Pid());
        LogCapture::Clear();
        EXPECT_TRUE(SendSignal(signal, "svc", child.Pid()));
        EXPECT_EQ(LogCapture::Lines(),
                  (std::vector<LogLine>{{6, "PROCMGR : SendSignal: " + std::to_string(signal) +
                                                " to app=svc, pid=" + id},
                                        {6, "PROCMGR : SendSignal: " + text + ", pid=" + id}}));
        EXPECT_EQ(child.Reap(), signal);
    }
}

TEST_F(AppSignalsTest, APidThatIsNoneIsRefused) {
    for (const int32_t pid : {0, -1, INT32_MIN}) {
        LogCapture::Clear();
        EXPECT_FALSE(SendSignal(SIGTERM, "svc", pid));
        EXPECT_EQ(LogCapture::Lines(),
                  (std::vector{LogLine{3, "PROCMGR : SendSignal failed: appName svc's pid=" +
                                              std::to_string(pid) + " is invalid"}}));
        BaseAppInfo app(Manifest(SomeService()));
        app.pid_ = pid;
        LogCapture::Clear();
        EXPECT_FALSE(app.TermProcess());
        EXPECT_EQ(LogCapture::Lines(),
                  (std::vector{LogLine{3, "PROCMGR : TermProcess failed: the pid=" +
                                              std::to_string(pid) + " is invalid"}}));
    }
}

TEST_F(AppSignalsTest, AProcessThatIsGone) {
    const pid_t pid = FreePid();
    const std::string id = std::to_string(pid);
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", pid));
    EXPECT_EQ(
        LogCapture::Lines(),
        (std::vector<LogLine>{
            {6, "PROCMGR : SendSignal: 15 to app=svc, pid=" + id},
            {3, "PROCMGR : SendSignal failed: kill failed appName=svc, pid=" + id + ", errno=3"}}));
    BaseAppInfo app(Manifest(SomeService()));
    app.pid_ = pid;
    EXPECT_TRUE(app.TermProcess());
}

TEST_F(AppSignalsTest, TermProcessTerminatesButNotAPidWhoseExitWasCollected) {
    WaitingChild child;
    BaseAppInfo app(Manifest(SomeService()));
    app.pid_ = child.Pid();
    app.SetExitStatus(0);
    EXPECT_TRUE(app.TermProcess());
    EXPECT_TRUE(child.IsUntouched());
    app.exitStatusSet_ = false;
    EXPECT_TRUE(app.TermProcess());
    EXPECT_EQ(child.Reap(), SIGTERM);
}

TEST_F(AppSignalsTest, OnlyTheTaskSchedulerHasWorkersToKill) {
    WaitingChild child("rqdaemon");
    for (const char* name : {"rqdaemon", "RqDaemon2", "svc", ""}) {
        TermRqdSubProc(name, child.Pid());
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
    EXPECT_TRUE(child.IsUntouched());
}

TEST_F(AppSignalsTest, AProcessOfAnotherNameIsNotTheTaskScheduler) {
    for (const pid_t pid : {getpid(), FreePid()}) {
        LogCapture::Clear();
        TermRqdSubProc("RqDaemon", pid);
        const std::string id = std::to_string(pid);
        ASSERT_EQ(LogCapture::Lines().size(), 2U);
        EXPECT_TRUE(LogCapture::ContainsPart(
            6, "[BOOT_TRACE][PM], PROCMGR: TermRqdSubProc begin, rqdPid=" + id));
        EXPECT_TRUE(LogCapture::Contains(
            3, "PROCMGR : TermRqdSubProc failed: appName RqDaemon's pid=" + id + " is invalid"));
    }
}

pid_t ReadPid(int fd) {
    pid_t pid = -1;
    return read(fd, &pid, sizeof pid) == sizeof pid ? pid : -1;
}

// Forks a process of that name that writes its pid, runs `body` and waits.
template <typename Body>
pid_t Spawn(const char* name, int fd, Body body) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_NAME, name);
        body();
        const pid_t own = getpid();
        [[maybe_unused]] const ssize_t written = write(fd, &own, sizeof own);
        while (true) {
            pause();
        }
    }
    return child;
}

bool IsKilled(pid_t pid) {
    const std::string state = StatusValue(pid, "State");
    return state.empty() || state.starts_with("Z");
}

// Taking down a large process lasts a while.
bool WaitUntilKilled(pid_t pid) {
    for (int i = 0; i < 1000 && !IsKilled(pid); ++i) {
        usleep(10000);
    }
    return IsKilled(pid);
}

// Runs as process 1 of a pid namespace, where an orphan's parent is known.
void CheckWorkers() {
    ASSERT_EQ(mount("proc", "/proc", "proc", 0, nullptr), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const auto nothing = [] {};
    pid_t orphan = -1;
    if (const pid_t middle = fork(); middle == 0) {
        Spawn("rqdaemon", ends[1], nothing);
        _exit(0);
    } else {
        waitpid(middle, nullptr, 0);
        orphan = ReadPid(ends[0]);
    }
    // The workers' pids come first, each after its fork.
    const pid_t daemon = Spawn("rqdaemon", ends[1], [&] {
        Spawn("rqdaemon", ends[1], nothing);
        Spawn("rqdaemon", ends[1], nothing);
        Spawn("rqdaemon2", ends[1], nothing);
    });
    std::vector<pid_t> family;
    for (int i = 0; i < 4; ++i) {
        family.push_back(ReadPid(ends[0]));
    }
    // Process 1 is the parent of this one too, and of the daemon: a stranger needs another.
    pid_t stranger = -1;
    Spawn("other", ends[1], [&] { Spawn("rqdaemon", ends[1], nothing); });
    for (int i = 0; i < 2; ++i) {
        const pid_t pid = ReadPid(ends[0]);
        stranger = StatusValue(pid, "Name") == "rqdaemon" ? pid : stranger;
    }
    const pid_t bystander = Spawn("svc", ends[1], nothing);
    ReadPid(ends[0]);

    LogCapture::Clear();
    TermRqdSubProc("RqDaemon", daemon);
    const auto contains = [](const std::string& part) { return LogCapture::ContainsPart(6, part); };
    for (const pid_t pid : family) {
        const std::string name = StatusValue(pid, "Name");
        if (pid == daemon) {
            continue;
        }
        EXPECT_EQ(name == "rqdaemon" ? WaitUntilKilled(pid) : IsKilled(pid), name == "rqdaemon")
            << name;
        const std::string line =
            "PROCMGR : TermRqdSubProc kill process rqdaemon(ppid=" + std::to_string(daemon) +
            ", pid=" + std::to_string(pid) + ")";
        EXPECT_EQ(LogCapture::Contains(6, line), name == "rqdaemon");
    }
    EXPECT_TRUE(WaitUntilKilled(orphan));
    EXPECT_TRUE(contains("PROCMGR : TermRqdSubProc kill process rqdaemon(ppid=1, pid=" +
                         std::to_string(orphan) + ")"));
    EXPECT_FALSE(IsKilled(stranger));
    EXPECT_FALSE(IsKilled(bystander));
    const std::string id = std::to_string(daemon);
    EXPECT_TRUE(LogCapture::Lines().front().text.ends_with(
        "s][BOOT_TRACE][PM], PROCMGR: TermRqdSubProc begin, rqdPid=" + id));
    EXPECT_TRUE(LogCapture::Lines().back().text.ends_with(
        "s][BOOT_TRACE][PM], PROCMGR: TermRqdSubProc end, rqdPid=" + id));
}

TEST_F(AppSignalsTest, WorkersOfTheTaskSchedulerAreKilledAndNobodyElse) {
    const int status = RunIsolated([] {
        if (unshare(CLONE_NEWPID) != 0) {
            _exit(EXIT_SKIPPED);
        }
        EXPECT_EQ(RunIsolated(CheckWorkers), 0);
    });
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SKIPPED) {
        GTEST_SKIP() << "no pid namespace here";
    }
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ProcMgr::App
