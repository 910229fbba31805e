#include "app/reaper.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>
#include <thread>

#include "main/common/daemon_signals.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/raw_peer.h"
#include "tests/support/wait.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::LogCapture;

class ReaperTest : public testing::Test {
protected:
    // Runs a script in a directory of the test's own, because some scripts leave a core file.
    pid_t Spawn(const std::string& script) const {
        const std::string line = "cd " + directory_.Path() + "; ulimit -c unlimited; " + script;
        const pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
            _exit(99);
        }
        return pid;
    }
    // Returns when the script has ended, and leaves the zombie to the reaper.
    pid_t SpawnZombie(const std::string& script) const {
        const pid_t pid = Spawn(script);
        siginfo_t info{};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
        return pid;
    }

    const Tests::TempDirectory directory_;
};

TEST_F(ReaperTest, StoresTheWaitStatusBeforeThePidIsFreed) {
    for (const char* script : {"exit 0", "exit 255", "kill -TERM $$", "kill -ABRT $$"}) {
        int expected = 0;
        const pid_t twin = Spawn(script);
        ASSERT_EQ(waitpid(twin, &expected, 0), twin);
        const pid_t pid = SpawnZombie(script);
        std::map<int32_t, int32_t> stored;
        Reaper reaper(
            {[&](int32_t of, int32_t status) {
                siginfo_t info{};
                waitid(P_PID, static_cast<id_t>(of), &info, WEXITED | WNOHANG | WNOWAIT);
                EXPECT_EQ(info.si_pid, of) << "already reaped";
                return stored.emplace(of, status).second;
            }},
            [&] { EXPECT_TRUE(stored.contains(pid)) << "too early"; }, [] { return false; });
        reaper.CollectExits();
        EXPECT_EQ(stored, (std::map<int32_t, int32_t>{{pid, expected}})) << script;
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "not reaped";
    }
}

TEST_F(ReaperTest, AsksTheContainersInTheirOrder) {
    const pid_t mine = SpawnZombie("exit 0");
    const pid_t unknown = SpawnZombie("exit 0");
    std::map<pid_t, std::string> asked;
    const auto ask = [&](char container) {
        return [&asked, mine, container](int32_t pid, int32_t) {
            asked[pid] += container;
            return pid == mine;
        };
    };
    LogCapture::Clear();
    Reaper(
        {ask('1'), ask('2')}, [] {}, [] { return false; })
        .CollectExits();
    EXPECT_EQ(asked, (std::map<pid_t, std::string>{{mine, "1"}, {unknown, "12"}}));
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector<Fakes::LogLine>{
                  {LOG_WARNING, "PROCMGR: can not find app, pid=" + std::to_string(unknown)}}));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
}

TEST_F(ReaperTest, AnExitThatNoSignalAnnouncesIsFoundByTheExitCheck) {
    InstallSignals();
    const Tests::Child stays;
    ExitCheck().Run();
    EXPECT_FALSE(Tests::IsReadable(GetSignalEventFd(), 0ms));
    const pid_t pid = SpawnZombie("exit 0");
    ExitCheck().Run();
    EXPECT_TRUE(Tests::IsReadable(GetSignalEventFd(), 0ms)) << "the reaper is not woken";
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), pid) << "the zombie is left to the reaper";
}

// The two ends that follow the first raise one signal, which names one of them.
TEST_F(ReaperTest, SeesTheExitsOfMergedSignalsAndEndsWhileChildrenLive) {
    InstallSignals();
    std::atomic<bool> isRunning{true};
    std::atomic<int> seen{0};
    const Tests::Child stays;
    const pid_t first = Spawn("exec sleep 60");
    const std::array others{Spawn("exec sleep 60"), Spawn("exec sleep 60")};
    const auto store = [&](int32_t pid, int32_t) {
        if (pid == first) {
            for (const pid_t other : others) {
                kill(other, SIGKILL);
                siginfo_t info{};
                waitid(P_PID, static_cast<id_t>(other), &info, WEXITED | WNOWAIT);
            }
        }
        return ++seen > 0;
    };
    std::thread thread([&] {
        Reaper(
            {store}, [] {}, [] { return false; })
            .Run(isRunning);
    });
    kill(first, SIGKILL);
    EXPECT_TRUE(Tests::WaitUntil([&] { return seen == 3; }));
    isRunning = false;
    WakeSignalEvent();
    thread.join();
    EXPECT_EQ(seen, 3) << "an exit is stored twice";
    for (const pid_t pid : {first, others[0], others[1]}) {
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "a zombie is left";
    }
    EXPECT_TRUE(stays.IsRunning());
}

}  // namespace
}  // namespace ProcMgr
