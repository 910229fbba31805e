// Signals to managed processes and to the workers of the task scheduler.
#include "app/signals.h"

#include <sys/mount.h>

#include <map>

#include "app/scheduler_workers.h"
#include "tests/app/app_test_support.h"
#include "tests/support/isolated.h"
#include "tests/support/wait.h"

namespace ProcMgr::App {
namespace {

using Tests::Child;

using SignalsTest = IsolatedTest;

TEST_F(SignalsTest, APidThatIsInvalidOrFreeOrWhoseExitIsStoredGetsNone) {
    Child child;
    const pid_t pid = child.Pid();
    child.Kill();
    BaseAppInfo app(Manifest(SomeService()));
    app.pid_ = -1;
    LogCapture::Clear();
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", 0));
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", -1));
    EXPECT_FALSE(app.TermProcess());
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", pid));
    const std::string failed = "PROCMGR : SendSignal failed: ";
    const std::string id = std::to_string(pid);
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{3, failed + "appName svc's pid=0 is invalid"},
                     {3, failed + "appName svc's pid=-1 is invalid"},
                     {3, "PROCMGR : TermProcess failed: the pid=-1 is invalid"},
                     {6, "PROCMGR : SendSignal: 15 to app=svc, pid=" + id},
                     {3, failed + "kill failed appName=svc, pid=" + id + ", errno=3"}}));

    Child other;
    app.pid_ = other.Pid();
    app.SetExitStatus(0);
    LogCapture::Clear();
    EXPECT_TRUE(app.TermProcess());
    EXPECT_TRUE(LogCapture::Lines().empty()) << "no signal was sent";
    app.SetStarted(other.Pid());
    EXPECT_TRUE(app.TermProcess());
    EXPECT_EQ(other.Wait(), SIGTERM);
    EXPECT_TRUE(LogCapture::ContainsPart(6, "PROCMGR : SendSignal: Successfully term appName=svc"));
}

enum Role { DAEMON, WORKER, OTHER_NAME, FATHER, STRANGER, ORPHAN };

struct Spawned {
    Role role;
    pid_t pid;
};

// Forks a process with a name that runs `body`, writes its role and pid to `fd`, and waits.
template <typename Body = void (*)()>
pid_t Spawn(
    int fd, Role role, const char* name, Body body = [] {}) {
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
    return StatusValue(pid, "State").starts_with("Z");
}

// Runs as process 1 of a pid namespace, which is the new parent of an orphan. A process that is
// killed stays a zombie.
void CheckWorkers() {
    ASSERT_EQ(mount("proc", "/proc", "proc", 0, nullptr), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Spawn(ends[1], DAEMON, "rqdaemon", [&] {
        Spawn(ends[1], WORKER, "rqdaemon");
        Spawn(ends[1], OTHER_NAME, "rqdaemon2");
    });
    Spawn(ends[1], FATHER, "other", [&] { Spawn(ends[1], STRANGER, "rqdaemon"); });
    const pid_t middle = Spawn(ends[1], FATHER, "other", [&] {
        Spawn(ends[1], ORPHAN, "rqdaemon");
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
    TermRqdSubProc("RqDaemon", getpid());  // a process of another name has none either
    EXPECT_EQ(LogCapture::Lines().back().text,
              "PROCMGR : TermRqdSubProc failed: appName RqDaemon's pid=1 is invalid");
    LogCapture::Clear();
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

TEST_F(SignalsTest, OnlyTheWorkersOfTheTaskSchedulerAreKilled) {
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
