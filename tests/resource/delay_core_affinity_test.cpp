#include "resource/delay_core_affinity.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <set>

#include "main/common/proc_mgr_env.h"
#include "resource/bind_count.h"
#include "resource/core_affinity_mgr.h"
#include "resource/wake_up_watch.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using namespace Message;
using Fakes::LogCapture;
using Cores = std::set<uint32_t>;

const std::string CPUSETS = "/sys/fs/cgroup/cpuset/";
const std::string IGNORED =
    "SetDelayCoreAffinity return directly as has recieved core affinity req before, will not "
    "update config or bind core";
const Cores BOTH = {0, 1};

Cores CoresOf(pid_t tid) {
    cpu_set_t set{};
    EXPECT_EQ(sched_getaffinity(tid, sizeof(set), &set), 0) << tid;
    Cores cores;
    for (uint32_t core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &set)) {
            cores.insert(core);
        }
    }
    return cores;
}

void SetCores(pid_t tid, const Cores& cores) {
    cpu_set_t set{};
    for (const uint32_t core : cores) {
        CPU_SET(core, &set);
    }
    EXPECT_EQ(sched_setaffinity(tid, sizeof(set), &set), 0) << tid;
}

std::string Wakeup(uint32_t interval, int checkNum, int wakeUp) {
    return "CheckCoreAffinityThread wakeup,checkInterval=" + std::to_string(interval) +
           ",checkNum=" + std::to_string(checkNum) + ",isWakeUpEnable=" + std::to_string(wakeUp);
}

std::string Finish(int count, uint32_t interval, int isOk, int wakeUp) {
    return "CheckCoreAffinityThread finish check " + std::to_string(count) +
           " times,check interval " + std::to_string(interval) +
           " ms,coreAffinityOk=" + std::to_string(isOk) +
           ", isWakeUpEnable=" + std::to_string(wakeUp);
}

// A process that does nothing, on both cores.
class Child {
public:
    Child() : pid_(fork()) {
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                pause();
            }
        }
        SetCores(pid_, BOTH);
    }
    ~Child() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    pid_t Pid() const { return pid_; }

private:
    const pid_t pid_;
};

// Threads of this process that take both cores, whatever their maker was pinned to.
class Threads {
public:
    ~Threads() {
        end_.set_value();
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    // Returns when the thread has done so.
    void Make() {
        std::promise<pid_t> ready;
        auto tid = ready.get_future();
        threads_.emplace_back([&ready, end = ended_] {
            SetCores(0, BOTH);
            ready.set_value(gettid());
            end.wait();
        });
        tids_.push_back(tid.get());
    }
    const std::vector<pid_t>& Tids() const { return tids_; }

private:
    std::promise<void> end_;
    std::shared_future<void> ended_ = end_.get_future().share();
    std::vector<std::thread> threads_;
    std::vector<pid_t> tids_;
};

// What is set here is set before the first bind.
class FakeApps : public ManagedApps {
public:
    std::vector<ManagedApp> GetManagedApps(ManagedFilter filter) override {
        if (filter == ManagedFilter::DELAYED) {
            onPass(++passes);
        }
        std::vector<ManagedApp> found = apps;
        std::erase_if(found, [&](const ManagedApp& app) {
            return filter == ManagedFilter::DELAYED && !app.isDelayed;
        });
        return found;
    }
    bool IsPresent(const ManagedApp& app) override { return app.name != "gone"; }
    void NoteTids(const ManagedApp& /*app*/, const std::set<int32_t>& /*tids*/) override {}
    std::optional<std::string> GetNameOf(int32_t /*pid*/) override { return std::nullopt; }
    bool HasProcess(const std::string& /*name*/) override { return false; }
    bool IsKnown(const std::string& /*name*/) override { return false; }

    void Add(const std::string& name, pid_t pid, std::vector<uint32_t> cores,
             bool isDelayed = true) {
        apps.push_back({name, pid, {}, std::move(cores), "slow", "", "", isDelayed});
    }

    std::vector<ManagedApp> apps;
    std::function<void(int pass)> onPass = [](int) {};  // the bind is the first
    std::atomic<int> passes{0};
};

class DelayCoreAffinityTest : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }
    uint32_t Bind(int8_t checkNum, uint32_t interval, uint8_t wakeUp = 0) {
        return delay_.SetDelayCoreAffinity({DELAY_BIND, checkNum, wakeUp, 0, interval});
    }
    uint32_t Reset() { return delay_.SetDelayCoreAffinity({.state = DELAY_RESET}); }

    FakeApps apps_;
    CgroupMgr cgroups_;
    CoreAffinityMgr affinity_;
    BindCount& bindCount_ = BindCount::GetInstance();
    DelayCoreAffinity delay_{cgroups_, affinity_, bindCount_, apps_};
};

// With the control groups of a device that has ordinary software on both cores.
class PinningTest : public DelayCoreAffinityTest {
protected:
    void SetUp() override {
        const Cores cores = CoresOf(0);
        if (!std::includes(cores.begin(), cores.end(), BOTH.begin(), BOTH.end())) {
            GTEST_SKIP() << "needs the cores 0 and 1";
        }
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "no private mount namespace here";
        }
        MountTmpfs("/sys/fs/cgroup");
        for (const auto& [group, list] :
             {std::pair("CtrlCPU", "0-1\n"), std::pair("slow", "1\n")}) {
            std::filesystem::create_directories(CPUSETS + group);
            std::ofstream(CPUSETS + group + "/cpuset.cpus") << list;
        }
        affinity_.LoadCoreLists();
        ProcMgrEnv::GetInstance().StorePid();
        DelayCoreAffinityTest::SetUp();
    }
    void TearDown() override {
        delay_.Stop();
        SetCores(0, BOTH);
    }
};

TEST_F(DelayCoreAffinityTest, StatesWhileBoundAndAfterTheEnd) {
    EXPECT_EQ(delay_.SetDelayCoreAffinity({.state = 2}), 15794956U);
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO,
                                     "SetDelayCoreAffinity state=2, cfg checkInterval=1000, "
                                     "checkNum=3, isWakeUpEnable=0, ret=15794956"));
    EXPECT_EQ(Reset(), 0U);
    EXPECT_EQ(Bind(1, 100, 1), 0U);
    ASSERT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(1, 100, 1, 1)));
    EXPECT_EQ(Bind(1, 100), 0U);
    EXPECT_EQ(LogCapture::Count(LOG_INFO, IGNORED), 1U);
    EXPECT_EQ(Reset(), 0U);

    EXPECT_EQ(Bind(-1, 60000), 0U);
    ASSERT_TRUE(LogCapture::WaitFor(LOG_INFO, Wakeup(60000, -1, 0)));
    EXPECT_EQ(Bind(7, 200), 0U);
    EXPECT_EQ(LogCapture::Count(LOG_INFO, IGNORED), 2U);
    EXPECT_EQ(Reset(), 15794955U);
    EXPECT_TRUE(LogCapture::Contains(
        LOG_INFO, "SetDelayCoreAffinity return busy, not finish last check task"));

    const auto begin = std::chrono::steady_clock::now();
    delay_.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "PROCMGR: CheckCoreAffinityThread exit now."));
    EXPECT_FALSE(LogCapture::Contains(LOG_INFO, Wakeup(200, 7, 0)));
}

TEST_F(DelayCoreAffinityTest, WhatCannotBeUsedIsReplaced) {
    struct Case {
        uint32_t interval;
        int8_t checkNum;
        uint32_t usedInterval;
        int usedCheckNum;
    };
    const Case cases[] = {
        {50, 101, 1000, 3},  {99, -1, 1000, -1}, {100, 100, 100, 100},     {60000, -2, 60000, 3},
        {60001, 1, 1000, 1}, {0, -128, 1000, 3}, {UINT32_MAX, 0, 1000, 0},
    };
    for (const auto& [interval, checkNum, usedInterval, usedCheckNum] : cases) {
        LogCapture::Clear();
        DelayCoreAffinity delay(cgroups_, affinity_, bindCount_, apps_);
        EXPECT_EQ(delay.SetDelayCoreAffinity({DELAY_BIND, checkNum, 1, 0, interval}), 0U);
        EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Wakeup(usedInterval, usedCheckNum, 1)));
        if (checkNum == 0) {
            EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(0, usedInterval, 0, 1)));
        }
        delay.Stop();
        EXPECT_EQ(LogCapture::Contains(
                      LOG_ERR, "SetDelayCoreAffinity checkInterval=" + std::to_string(interval) +
                                   " not valid,use default value 1000"),
                  interval != usedInterval);
        EXPECT_EQ(LogCapture::Contains(
                      LOG_ERR, "SetDelayCoreAffinity config checkNum=" + std::to_string(checkNum) +
                                   " not valid,use default value 3"),
                  checkNum != usedCheckNum);
    }
}

TEST_F(DelayCoreAffinityTest, OfManyBindsAtATimeOneIsAccepted) {
    constexpr size_t OWNERS = 8;
    std::vector<std::thread> owners;
    for (size_t owner = 0; owner < OWNERS; ++owner) {
        owners.emplace_back([this] { EXPECT_EQ(Bind(-1, 60000), 0U); });
    }
    for (std::thread& owner : owners) {
        owner.join();
    }
    EXPECT_EQ(LogCapture::Count(LOG_INFO, IGNORED), OWNERS - 1);
    EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Wakeup(60000, -1, 0)));
    delay_.Stop();
    EXPECT_EQ(LogCapture::Count(LOG_INFO, Wakeup(60000, -1, 0)), 1U);
}

TEST_F(PinningTest, ThreadsMadeMeanwhileArePinnedAndStayPinned) {
    Threads threads;
    threads.Make();
    const pid_t early = threads.Tids()[0];
    apps_.Add("self", getpid(), {0});
    apps_.onPass = [&threads](int) { threads.Make(); };
    EXPECT_EQ(Bind(-1, 100), 0U);
    EXPECT_EQ(CoresOf(early), Cores{0});
    EXPECT_TRUE(
        LogCapture::Contains(LOG_INFO, "StoreAndSetCoreAffinity pid:" + std::to_string(getpid()) +
                                           " tid:" + std::to_string(early)));
    // The third pass is the first that counts; it pins the last thread that was not.
    ASSERT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(1, 100, 1, 0)));
    EXPECT_EQ(threads.Tids().size(), 4U);
    // Also those that have it from their maker.
    std::set<int32_t> tids;
    ASSERT_TRUE(CoreAffinityMgr::GetTids(getpid(), tids));
    EXPECT_GE(tids.size(), 6U);
    for (const pid_t tid : tids) {
        EXPECT_EQ(CoresOf(tid), Cores{0});
        SetCores(tid, BOTH);
    }

    delay_.WakeUpRecover();
    for (const pid_t tid : tids) {
        EXPECT_EQ(CoresOf(tid), Cores{0});
    }
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "WakeUpRecover wakeUpDelayCoreAffinity=0"));
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "WakeUpRecover success"));
    EXPECT_EQ(Bind(-1, 100), 0U);
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, IGNORED));
}

TEST_F(PinningTest, AWakeUpMayUndoTheBindAndAllowANewOne) {
    const Child delayed;
    const Child plain;
    apps_.Add("delayed", delayed.Pid(), {0});
    apps_.Add("plain", plain.Pid(), {0}, false);
    std::string error;
    affinity_.StoreAndSetCoreAffinity(plain.Pid(), plain.Pid(), {0}, error);
    EXPECT_EQ(Bind(1, 100, 1), 0U);
    EXPECT_EQ(CoresOf(delayed.Pid()), Cores{0});
    ASSERT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(1, 100, 1, 1)));
    SetCores(plain.Pid(), BOTH);
    SetCores(0, {1});

    delay_.WakeUpRecover();
    EXPECT_EQ(CoresOf(delayed.Pid()), Cores{1});
    EXPECT_EQ(CoresOf(plain.Pid()), Cores{0});
    EXPECT_EQ(CoresOf(0), BOTH);
    for (const char* line :
         {"WakeUpRecover wakeUpDelayCoreAffinity=1", "PROCMGR: CgroupMgr EnableDefaultCgroupCpu",
          "Reset Core Affinity to CpuSet for delay apps, ret=0"}) {
        EXPECT_TRUE(LogCapture::Contains(LOG_INFO, line)) << line;
    }

    EXPECT_EQ(Bind(-1, 60000), 0U);
    EXPECT_EQ(CoresOf(delayed.Pid()), Cores{0});
    EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Wakeup(60000, -1, 0)));
}

TEST_F(PinningTest, ACheckThatTheWakeUpMeetsDoesNotUndoIt) {
    const Child child;
    apps_.Add("delayed", child.Pid(), {0});
    std::promise<void> inCheck;
    std::promise<void> isAwake;
    // Or the wake-up waits for the check: then this one must not wait for ever.
    apps_.onPass = [&](int pass) {
        if (pass == 2) {
            inCheck.set_value();
            isAwake.get_future().wait_for(500ms);
        }
    };
    EXPECT_EQ(Bind(-1, 60000, 1), 0U);
    inCheck.get_future().wait();
    delay_.WakeUpRecover();
    isAwake.set_value();
    EXPECT_TRUE(LogCapture::WaitForPart(LOG_INFO, "CheckCoreAffinityThread finish check "));
    EXPECT_EQ(CoresOf(child.Pid()), Cores{1});

    // Nor does its end stand in the way of a new bind.
    EXPECT_EQ(Bind(-1, 60000), 0U);
    EXPECT_EQ(CoresOf(child.Pid()), Cores{0});
    EXPECT_EQ(Reset(), 15794955U);
    delay_.Stop();
}

TEST_F(PinningTest, ASuspendEndsTheChecksUntilTheWakeUp) {
    const Child child;
    apps_.Add("refused", child.Pid(), {1023});
    EXPECT_EQ(Bind(-1, 100), 15794956U);
    for (int i = 0; i < 500 && apps_.passes < 4; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_GE(apps_.passes, 4);
    delay_.Suspend();
    ASSERT_TRUE(LogCapture::WaitForPart(LOG_INFO, "CheckCoreAffinityThread finish check "));
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "CheckCoreAffinityThread suspend"));
    EXPECT_TRUE(LogCapture::ContainsPart(LOG_INFO, "coreAffinityOk=0, isWakeUpEnable=0"));
    const int passes = apps_.passes;
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(apps_.passes, passes);

    // A bind does not end the suspend, the wake-up does.
    for (const int checks : {0, 2}) {
        EXPECT_EQ(Reset(), 0U);
        LogCapture::Clear();
        EXPECT_EQ(Bind(2, 100), 15794956U);
        EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(checks, 100, 0, 0)));
        delay_.WakeUpRecover();
    }
}

TEST_F(PinningTest, ARefusalIsReportedAndTheOthersAreBound) {
    const Child refused;
    const Child good;
    apps_.Add("refused", refused.Pid(), {1023});
    apps_.Add("good", good.Pid(), {1});
    EXPECT_EQ(Bind(2, 100), 15794956U);
    EXPECT_EQ(CoresOf(refused.Pid()), BOTH);
    EXPECT_EQ(CoresOf(good.Pid()), Cores{1});
    const std::string error =
        "err=SetCoreAffinity fail pid=" + std::to_string(refused.Pid()) + ", errno=22;";
    EXPECT_TRUE(
        LogCapture::ContainsPart(LOG_WARNING, "PROCMGR : BindCoreForDelayApp failed " + error));
    EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(2, 100, 0, 0)));
    EXPECT_EQ(LogCapture::Count(LOG_WARNING,
                                "PROCMGR : CheckMissingTids SetCoreAffinityToOs failed " + error),
              3U);
    const std::string pid = std::to_string(refused.Pid());
    EXPECT_TRUE(
        LogCapture::Contains(LOG_ERR, "SetCoreAffinityToOs fail, pid:" + pid + ", tid:" + pid +
                                          ", errStr: " + error.substr(error.find('=') + 1)));
}

TEST_F(PinningTest, AProcessThatIsGoneOrNotMarkedIsLeftAlone) {
    const Child stranger;  // has the pid now
    const Child plain;
    apps_.Add("gone", stranger.Pid(), {0});
    apps_.Add("plain", plain.Pid(), {0}, false);
    EXPECT_EQ(Bind(1, 100, 1), 0U);
    EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(1, 100, 1, 1)));
    EXPECT_EQ(CoresOf(plain.Pid()), BOTH);
    delay_.WakeUpRecover();
    EXPECT_EQ(CoresOf(stranger.Pid()), BOTH);
}

// The clocks of a time namespace are ahead of the machine's by as much as one likes.
int LookAhead(const std::string& offsets) {
    constexpr int NEW_TIME = 0x80;
    return RunIsolated([&offsets] {
        WakeUpWatch watch;
        if (unshare(NEW_TIME) != 0 || !(std::ofstream("/proc/self/timens_offsets") << offsets)) {
            _exit(EXIT_SKIPPED);
        }
        const pid_t child = fork();
        if (child == 0) {
            const bool isFirst = watch.HasWokenUp();
            _exit((isFirst ? 1 : 0) + (watch.HasWokenUp() ? 2 : 0));
        }
        int status = 0;
        waitpid(child, &status, 0);
        _exit(WEXITSTATUS(status));
    });
}

TEST(WakeUpWatchTest, SeesWhatOnlyOneClockHasGained) {
    if (WEXITSTATUS(LookAhead("boottime 0 0\n")) == EXIT_SKIPPED) {
        GTEST_SKIP() << "no time namespace here";
    }
    EXPECT_EQ(WEXITSTATUS(LookAhead("boottime 2 0\n")), 1);
    EXPECT_EQ(WEXITSTATUS(LookAhead("boottime 0 500000000\n")), 0);
    EXPECT_EQ(WEXITSTATUS(LookAhead("boottime 60 0\nmonotonic 60 0\n")), 0);
}

}  // namespace
}  // namespace ProcMgr
