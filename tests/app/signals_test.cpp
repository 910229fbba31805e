#include "app/signals.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "app/base_app_info.h"
#include "app/scheduler_workers.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

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

TEST_F(AppSignalsTest, APidThatIsNoneOrGone) {
    BaseAppInfo app(Manifest(SomeService()));
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", 0));
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", -1));
    app.pid_ = -1;
    EXPECT_FALSE(app.TermProcess());
    const pid_t pid = FreePid();
    const std::string id = std::to_string(pid);
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", pid));
    const std::string failed = "PROCMGR : SendSignal failed: ";
    EXPECT_EQ(
        LogCapture::Lines(),
        (std::vector<LogLine>{{3, failed + "appName svc's pid=0 is invalid"},
                              {3, failed + "appName svc's pid=-1 is invalid"},
                              {3, "PROCMGR : TermProcess failed: the pid=-1 is invalid"},
                              {6, "PROCMGR : SendSignal: 15 to app=svc, pid=" + id},
                              {3, failed + "kill failed appName=svc, pid=" + id + ", errno=3"}}));
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

TEST_F(AppSignalsTest, AProcessOfAnotherNameIsNotTheTaskScheduler) {
    TermRqdSubProc("RqDaemon", getpid());
    EXPECT_TRUE(LogCapture::Contains(3, "PROCMGR : TermRqdSubProc failed: appName RqDaemon's pid=" +
                                            std::to_string(getpid()) + " is invalid"));
}

TEST_F(AppSignalsTest, WithoutAListOfProcessesTheSearchHasNoEnd) {
    const int status = RunIsolated([] {
        // Readable by path, but not as a directory.
        MountTmpfs("/proc");
        ASSERT_EQ(mkdir("/proc/7", 0755), 0);
        std::ofstream("/proc/7/status") << "Name:\trqdaemon\n";
        ASSERT_EQ(chmod("/proc", 0711), 0);
        ASSERT_EQ(setresuid(1000, 1000, 1000), 0);
        TermRqdSubProc("RqDaemon", 7);
        ASSERT_EQ(LogCapture::Lines().size(), 2U);
        EXPECT_EQ(LogCapture::Lines().back(),
                  (LogLine{3, "PROCMGR: TermRqdSubProc open /proc/ fail"}));
    });
    EXPECT_EQ(status, 0);
}

enum Role { DAEMON, WORKER, OTHER_NAME, FATHER, STRANGER, ORPHAN };

struct Spawned {
    Role role;
    pid_t pid;
};

// Forks a process of that name that runs `body`, tells its role and pid, and waits.
template <typename Body>
pid_t Spawn(int fd, Role role, const char* name, Body body) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_NAME, name);
        body();
        const Spawned own{role, getpid()};
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
    Spawn(ends[1], DAEMON, "rqdaemon", [&] {
        Spawn(ends[1], WORKER, "rqdaemon", nothing);
        Spawn(ends[1], OTHER_NAME, "rqdaemon2", nothing);
    });
    Spawn(ends[1], FATHER, "other", [&] { Spawn(ends[1], STRANGER, "rqdaemon", nothing); });
    const pid_t middle = Spawn(ends[1], FATHER, "other", [&] {
        Spawn(ends[1], ORPHAN, "rqdaemon", nothing);
        _exit(0);
    });
    waitpid(middle, nullptr, 0);
    std::map<Role, pid_t> pids;
    for (int i = 0; i < 6; ++i) {
        Spawned spawned{};
        ASSERT_EQ(read(ends[0], &spawned, sizeof spawned), ssize_t{sizeof spawned});
        pids[spawned.role] = spawned.pid;
    }

    LogCapture::Clear();
    TermRqdSubProc("rqdaemon", pids[DAEMON]);  // no application of that name has workers
    EXPECT_TRUE(LogCapture::Lines().empty());
    TermRqdSubProc("RqDaemon", pids[DAEMON]);
    const std::string id = std::to_string(pids[DAEMON]);
    for (const auto& [role, parent] : {std::pair(WORKER, id), {ORPHAN, std::string("1")}}) {
        EXPECT_TRUE(WaitUntilKilled(pids[role])) << role;
        EXPECT_TRUE(LogCapture::Contains(
            6, "PROCMGR : TermRqdSubProc kill process rqdaemon(ppid=" + parent +
                   ", pid=" + std::to_string(pids[role]) + ")"));
    }
    for (const Role role : {OTHER_NAME, FATHER, STRANGER}) {
        EXPECT_FALSE(IsKilled(pids[role])) << role;
    }
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
