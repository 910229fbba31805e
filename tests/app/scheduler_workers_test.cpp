#include "app/scheduler_workers.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>

#include <map>
#include <string>

#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"
#include "tests/support/wait.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;

using SchedulerWorkers = IsolatedTest;

TEST_F(SchedulerWorkers, AProcessOfAnotherNameIsNotTheTaskScheduler) {
    LogCapture::Clear();
    TermRqdSubProc("RqDaemon", getpid());
    EXPECT_TRUE(LogCapture::Contains(3, "PROCMGR : TermRqdSubProc failed: appName RqDaemon's pid=" +
                                            std::to_string(getpid()) + " is invalid"));
}

TEST_F(SchedulerWorkers, AListOfProcessesThatCannotBeReadIsLogged) {
    const int status = RunIsolated([] {
        MountTmpfs("/proc");
        Tests::WriteFile("/proc/7/status", "Name:\trqdaemon\n");
        // The user may open files in the directory, but not list it.
        ASSERT_EQ(chmod("/proc", 0711), 0);
        ASSERT_EQ(setresuid(1000, 1000, 1000), 0);
        LogCapture::Clear();
        TermRqdSubProc("RqDaemon", 7);
        ASSERT_EQ(LogCapture::Lines().size(), 2U) << "begin and failure, no end";
        EXPECT_EQ(LogCapture::Lines().back().text, "PROCMGR: TermRqdSubProc open /proc/ fail");
    });
    EXPECT_EQ(status, 0);
}

enum Role { DAEMON, WORKER, OTHER_NAME, FATHER, STRANGER, ORPHAN };

struct Spawned {
    Role role;
    pid_t pid;
};

// Forks a process with a name that runs `body`, writes its role and pid to `fd`, and waits.
template <typename Body>
pid_t Spawn(int fd, Role role, const char* name, Body body) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_NAME, name);
        body();
        const Spawned own{role, getpid()};
        [[maybe_unused]] const ssize_t written = write(fd, &own, sizeof own);
        Tests::Pause();
    }
    return child;
}

bool IsKilled(pid_t pid) {
    const std::string state = StatusValue(pid, "State");
    return state.empty() || state.starts_with("Z");
}

// Runs as process 1 of a pid namespace, which is the new parent of an orphan.
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
    TermRqdSubProc("rqdaemon", pids[DAEMON]);  // an application of this name has no workers
    EXPECT_TRUE(LogCapture::Lines().empty());
    TermRqdSubProc("RqDaemon", pids[DAEMON]);
    const std::string id = std::to_string(pids[DAEMON]);
    for (const auto& [role, parent] : {std::pair(WORKER, id), {ORPHAN, std::string("1")}}) {
        EXPECT_TRUE(Tests::WaitUntil([&, pid = pids[role]] { return IsKilled(pid); })) << role;
        EXPECT_TRUE(LogCapture::Contains(
            6, "PROCMGR : TermRqdSubProc kill process rqdaemon(ppid=" + parent +
                   ", pid=" + std::to_string(pids[role]) + ")"));
    }
    for (const Role role : {OTHER_NAME, FATHER, STRANGER}) {
        EXPECT_FALSE(IsKilled(pids[role])) << role;
    }
    const std::string stamp = "s][BOOT_TRACE][PM], PROCMGR: TermRqdSubProc ";
    EXPECT_TRUE(LogCapture::Lines().front().text.ends_with(stamp + "begin, rqdPid=" + id));
    EXPECT_TRUE(LogCapture::Lines().back().text.ends_with(stamp + "end, rqdPid=" + id));
}

TEST_F(SchedulerWorkers, OnlyTheWorkersOfTheTaskSchedulerAreKilled) {
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
