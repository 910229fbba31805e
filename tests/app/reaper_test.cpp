#include "app/reaper.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "baseservice/base_services.h"
#include "channel/owner_pipes.h"
#include "channel/owner_reports.h"
#include "main/common/daemon_signals.h"
#include "platform/host/manifest_data.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/wait.h"

namespace ProcMgr {
namespace {

using Fakes::LogCapture;

// Programs run in a directory of the test's own, because some leave a core file.
class ReaperTest : public testing::Test {
protected:
    pid_t Spawn(const char* script) const {
        const pid_t pid = fork();
        if (pid == 0) {
            const rlimit coreLimit{RLIM_INFINITY, RLIM_INFINITY};
            setrlimit(RLIMIT_CORE, &coreLimit);
            if (chdir(directory_.Path().c_str()) == 0) {
                execl("/bin/sh", "sh", "-c", script, nullptr);
            }
            _exit(99);
        }
        return pid;
    }
    // Returns when the child has ended, and leaves the zombie to the reaper.
    pid_t SpawnZombie(const char* script) const {
        const pid_t pid = Spawn(script);
        siginfo_t info{};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
        return pid;
    }

    Tests::TempDirectory directory_;
};

bool IsReaped(pid_t pid) {
    return waitpid(pid, nullptr, WNOHANG) == -1;
}

TEST_F(ReaperTest, StoresTheWaitStatusBeforeThePidIsFreed) {
    for (const char* script : {"exit 0", "exit 125", "exit 255", "kill -TERM $$", "kill -KILL $$",
                               "kill -ABRT $$", "kill -SEGV $$"}) {
        int expected = 0;
        const pid_t twin = Spawn(script);
        ASSERT_EQ(waitpid(twin, &expected, 0), twin);
        const pid_t pid = SpawnZombie(script);
        std::map<int32_t, int32_t> stored;
        Reaper reaper({[&](int32_t of, int32_t status) {
                          siginfo_t info{};
                          waitid(P_PID, static_cast<id_t>(of), &info, WEXITED | WNOHANG | WNOWAIT);
                          EXPECT_EQ(info.si_pid, of) << "already reaped";
                          return stored.emplace(of, status).second;
                      }},
                      [] {});
        reaper.CollectExits();
        EXPECT_EQ(stored, (std::map<int32_t, int32_t>{{pid, expected}})) << script;
        EXPECT_TRUE(IsReaped(pid));
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
    Reaper({ask('1'), ask('2')}, [] {}).CollectExits();
    EXPECT_EQ(asked, (std::map<pid_t, std::string>{{mine, "1"}, {unknown, "12"}}));
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector<Fakes::LogLine>{
                  {LOG_WARNING, "PROCMGR: can not find app, pid=" + std::to_string(unknown)}}));
    EXPECT_TRUE(IsReaped(unknown));
}

// Runs a reaper on a thread, like the daemon.
class ReaperThread {
public:
    explicit ReaperThread(ExitSink sink) : reaper_({std::move(sink)}, [] {}) {
        InstallSignals();
        thread_ = std::thread([this] { reaper_.Run(running_); });
    }
    ~ReaperThread() {
        running_ = false;
        WakeSignalEvent();
        thread_.join();
    }

private:
    Reaper reaper_;
    std::atomic<bool> running_{true};
    std::thread thread_;
};

TEST_F(ReaperTest, SeesAnExitAndEndsWhileChildrenLive) {
    std::atomic<pid_t> seen{0};
    const Tests::Child stays;
    {
        const ReaperThread reaper([&](int32_t pid, int32_t) {
            seen = pid;
            return true;
        });
        const pid_t goes = Spawn("exec sleep 60");
        kill(goes, SIGKILL);
        EXPECT_TRUE(Tests::WaitUntil([&] { return seen == goes; }));
    }
    EXPECT_TRUE(stays.IsRunning());
}

// A program that ends at once may end before the thread that has forked it goes on.
TEST_F(ReaperTest, NoExitIsLost) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may start services";
    }
    constexpr int THREADS = 2;
    constexpr int LAUNCHES = 200;  // of each thread
    LogCapture::Clear();
    App::ProcessLauncher launcher{CgroupMgr::GetInstance(), CoreAffinityMgr::GetInstance(),
                                  BindCount::GetInstance()};
    ReportedState reportedState;
    CheckRequests checks;
    OwnerPipes pipes([](int32_t, const MuxaRequest*, const std::string&) {});
    ReportSender sender(pipes, {});
    OwnerReports reports(pipes, sender);
    BaseServices services(launcher, reportedState, checks, pipes, reports,
                          App::SensorNodeEventReporter::GetInstance());
    std::atomic<int> stored{0};
    const ReaperThread reaper([&](int32_t pid, int32_t status) {
        const bool isStored = services.SetExitStatus(pid, status);
        stored += isStored ? 1 : 0;
        return isStored;
    });
    std::vector<std::thread> starters;
    for (int i = 0; i < THREADS; ++i) {
        starters.emplace_back([&services, i] {
            for (int launch = 0; launch < LAUNCHES; ++launch) {
                ManifestData data;
                data.name = std::to_string(i) + "-" + std::to_string(launch);
                data.bin = "/bin/true";
                App::BaseAppInfo record(
                    ApplicationManifest(std::make_shared<const ManifestData>(data)));
                EXPECT_TRUE(services.Start(record));
            }
        });
    }
    for (std::thread& starter : starters) {
        starter.join();
    }
    EXPECT_TRUE(Tests::WaitUntil([&] { return stored == THREADS * LAUNCHES; })) << stored;
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_WARNING, "can not find app"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

}  // namespace
}  // namespace ProcMgr
