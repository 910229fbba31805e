// Delayed binding and its races with wake-ups, on real processes and threads; and WakeUpWatch.
#include "resource/delay_core_affinity.h"

#include <deque>
#include <fstream>

#include "main/common/proc_mgr_env.h"
#include "resource/wake_up_watch.h"
#include "tests/resource/resource_fixture.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using namespace Message;
using Tests::Child;
using Tests::WaitUntil;

const std::string IGNORED =
    "SetDelayCoreAffinity return directly as has recieved core affinity req before, will not "
    "update config or bind core";

std::string Wakeup(uint32_t interval, int checkNum, int wakeUp) {
    return "CheckCoreAffinityThread wakeup,checkInterval=" + to_string(interval) +
           ",checkNum=" + to_string(checkNum) + ",isWakeUpEnable=" + to_string(wakeUp);
}

std::string Finish(int count, uint32_t interval, int isOk, int wakeUp) {
    return "CheckCoreAffinityThread finish check " + to_string(count) + " times,check interval " +
           to_string(interval) + " ms,coreAffinityOk=" + to_string(isOk) +
           ", isWakeUpEnable=" + to_string(wakeUp);
}

// With a cpuset "CtrlCPU" of both cores and a cpuset "slow" of core 1, in which the applications
// are.
class DelayCoreAffinityTest : public PinningTest {
protected:
    void Prepare() override {
        PinningTest::Prepare();
        MakeCpuset("CtrlCPU", "0-1");
        MakeCpuset("slow", "1");
        affinity_.LoadCoreLists();
        ProcMgrEnv::GetInstance().StorePid();
        LogCapture::Clear();
    }
    uint32_t Bind(int8_t checkNum, uint32_t interval, uint8_t wakeUp = 0) {
        return delay_.SetDelayCoreAffinity({DELAY_BIND, checkNum, wakeUp, 0, interval});
    }
    uint32_t Reset() { return delay_.SetDelayCoreAffinity({.state = DELAY_RESET}); }
    void Add(const std::string& name, pid_t pid, const std::vector<uint32_t>& cores,
             bool isDelayed = true) {
        apps_.apps.push_back({name, pid, {}, cores, "slow", "", "", isDelayed});
    }

    FakeApps apps_;
    DelayCoreAffinity delay_{cgroups_, affinity_, BindCount::GetInstance(), apps_};
};

TEST_F(DelayCoreAffinityTest, StatesWhileBoundAndAfterTheEnd) {
    EXPECT_EQ(delay_.SetDelayCoreAffinity({.state = 2}), 15794956U);
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

    const auto begin = std::chrono::steady_clock::now();
    delay_.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s) << "the interval is not waited for";
    for (const char* line :
         {"SetDelayCoreAffinity state=2, cfg checkInterval=1000, checkNum=3, isWakeUpEnable=0, "
          "ret=15794956",
          "SetDelayCoreAffinity return busy, not finish last check task",
          "PROCMGR: CheckCoreAffinityThread exit now."}) {
        EXPECT_TRUE(LogCapture::Contains(LOG_INFO, line)) << line;
    }
    EXPECT_FALSE(LogCapture::Contains(LOG_INFO, Wakeup(200, 7, 0)));
}

TEST_F(DelayCoreAffinityTest, ValuesOutOfRangeAreReplaced) {
    struct Case {
        uint32_t interval;
        int8_t checkNum;
        uint32_t usedInterval;
        int usedCheckNum;
    };
    const Case cases[] = {
        {99, -1, 1000, -1},       {100, 100, 100, 100},  {60000, -2, 60000, 3},
        {UINT32_MAX, 0, 1000, 0}, {60001, 101, 1000, 3},
    };
    for (const auto& [interval, checkNum, usedInterval, usedCheckNum] : cases) {
        LogCapture::Clear();
        DelayCoreAffinity delay(cgroups_, affinity_, BindCount::GetInstance(), apps_);
        EXPECT_EQ(delay.SetDelayCoreAffinity({DELAY_BIND, checkNum, 1, 0, interval}), 0U);
        EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Wakeup(usedInterval, usedCheckNum, 1)));
        if (checkNum == 0) {
            EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(0, usedInterval, 0, 1)));
        }
        EXPECT_EQ(CountLines(LOG_ERR),
                  (interval == usedInterval ? 0 : 1) + (checkNum == usedCheckNum ? 0 : 1));
    }
    for (const char* line :
         {"SetDelayCoreAffinity checkInterval=60001 not valid,use default value 1000",
          "SetDelayCoreAffinity config checkNum=101 not valid,use default value 3"}) {
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
    }
}

TEST_F(DelayCoreAffinityTest, OfManyBindsAtATimeOneIsAccepted) {
    std::vector<std::jthread> owners;
    for (int owner = 0; owner < 8; ++owner) {
        owners.emplace_back([this] { EXPECT_EQ(Bind(-1, 60000), 0U); });
    }
    owners.clear();
    EXPECT_EQ(LogCapture::Count(LOG_INFO, IGNORED), 7U);
}

TEST_F(DelayCoreAffinityTest, ThreadsCreatedDuringThePassesArePinnedAndStayPinned) {
    std::deque<IdleThread> threads(1);
    const int32_t early = threads[0].Tid();
    Add("self", getpid(), {0});
    apps_.onPass = [&threads](int) { threads.emplace_back(); };
    EXPECT_EQ(Bind(-1, 100), 0U);
    EXPECT_EQ(CoresOf(early), Cores{0});
    // The bind and the pass before the first re-check leave one thread to the re-check.
    ASSERT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(1, 100, 1, 0)));
    EXPECT_EQ(threads.size(), 4U);
    // The threads of the test framework and of the bind have inherited the pinning.
    std::set<int32_t> tids;
    ASSERT_TRUE(CoreAffinityMgr::GetTids(getpid(), tids));
    EXPECT_GE(tids.size(), 6U);
    for (const int32_t tid : tids) {
        EXPECT_EQ(CoresOf(tid), Cores{0});
        SetCores(tid, BOTH);
    }

    delay_.WakeUpRecover();
    for (const int32_t tid : tids) {
        EXPECT_EQ(CoresOf(tid), Cores{0});
    }
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "WakeUpRecover wakeUpDelayCoreAffinity=0"));
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "WakeUpRecover success"));
    EXPECT_EQ(Bind(-1, 100), 0U);
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, IGNORED));
}

TEST_F(DelayCoreAffinityTest, AWakeUpMayUndoTheBindAndAllowANewOne) {
    const Child delayed;
    const Child plain;
    Add("delayed", delayed.Pid(), {0});
    Add("plain", plain.Pid(), {0}, false);
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

TEST_F(DelayCoreAffinityTest, APassThatRunsDuringTheWakeUpDoesNotPinAgain) {
    const Child child;
    Add("delayed", child.Pid(), {0});
    std::promise<void> inCheck;
    std::promise<void> isAwake;
    // The pass waits with a limit: the wake-up may have to wait for it.
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

    // Its end does not change the state of a new bind.
    EXPECT_EQ(Bind(-1, 60000), 0U);
    EXPECT_EQ(CoresOf(child.Pid()), Cores{0});
    EXPECT_EQ(Reset(), 15794955U);
    delay_.Stop();
}

TEST_F(DelayCoreAffinityTest, ASuspendEndsTheChecksOfARefusedBindUntilTheWakeUp) {
    const Child refused;
    const Child good;
    const Child plain;
    const Child stranger;  // has the pid of an application that has ended
    Add("refused", refused.Pid(), {1023});
    Add("good", good.Pid(), {1});
    Add("plain", plain.Pid(), {0}, false);
    Add("gone", stranger.Pid(), {0});
    EXPECT_EQ(Bind(-1, 100), 15794956U);
    EXPECT_EQ(CoresOf(refused.Pid()), BOTH);
    EXPECT_EQ(CoresOf(good.Pid()), Cores{1});
    EXPECT_EQ(CoresOf(plain.Pid()), BOTH);
    const std::string error =
        " failed err=SetCoreAffinity fail pid=" + to_string(refused.Pid()) + ", errno=22;";
    EXPECT_TRUE(LogCapture::ContainsPart(LOG_WARNING, "PROCMGR : BindCoreForDelayApp" + error));
    ASSERT_TRUE(WaitUntil([this] { return apps_.passes >= 4; }));
    delay_.Suspend();
    ASSERT_TRUE(LogCapture::WaitForPart(LOG_INFO, "coreAffinityOk=0, isWakeUpEnable=0"));
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "CheckCoreAffinityThread suspend"));

    // A new bind does not end the suspend, the wake-up does.
    for (const int checks : {0, 2}) {
        EXPECT_EQ(Reset(), 0U);
        LogCapture::Clear();
        EXPECT_EQ(Bind(2, 100), 15794956U);
        EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, Finish(checks, 100, 0, 0)));
        const std::string line = "PROCMGR : CheckMissingTids SetCoreAffinityToOs" + error;
        EXPECT_EQ(LogCapture::Count(LOG_WARNING, line), 1U + static_cast<size_t>(checks));
        delay_.WakeUpRecover();
        EXPECT_EQ(CoresOf(stranger.Pid()), BOTH);
    }
}

// Sets the clocks of a time namespace forward. Returns the results of two calls of HasWokenUp in
// it: 1 for the first, 2 for the second.
int LookAhead(const std::string& offsets) {
    constexpr int NEW_TIME = 0x80;
    return WEXITSTATUS(RunIsolated([&offsets] {
        WakeUpWatch watch;
        if (unshare(NEW_TIME) != 0 || !(std::ofstream("/proc/self/timens_offsets") << offsets)) {
            _exit(EXIT_SKIPPED);
        }
        Child child([&watch] {
            const bool isFirst = watch.HasWokenUp();
            return (isFirst ? 1 : 0) + (watch.HasWokenUp() ? 2 : 0);
        });
        _exit(child.ExitCode());
    }));
}

TEST(WakeUpWatchTest, OnlyAGainOfOneClockOnTheOtherIsASuspend) {
    if (LookAhead("boottime 0 0\n") == EXIT_SKIPPED) {
        GTEST_SKIP() << "no time namespace here";
    }
    EXPECT_EQ(LookAhead("boottime 2 0\n"), 1);
    EXPECT_EQ(LookAhead("boottime 0 500000000\n"), 0);
    EXPECT_EQ(LookAhead("boottime 60 0\nmonotonic 60 0\n"), 0);
}

}  // namespace
}  // namespace ProcMgr
