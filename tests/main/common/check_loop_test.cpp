#include "main/common/check_loop.h"

#include <gmock/gmock.h>

#include <atomic>
#include <optional>
#include <thread>

#include "tests/fakes/log_capture.h"
#include "tests/main/common/fake_clock.h"
#include "tests/support/wait.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class CheckLoopTest : public testing::Test {
protected:
    // A container and a periodic check. Records its calls as "MILLISECONDS NAME"; an extra pass
    // adds "!", a removal "-", a completion "+".
    struct Part final : Supervised, PeriodicCheck {
        Part(CheckLoopTest& owner, const char* label) : test(owner), name(label) {}
        void Check(CheckPass pass) override { Run(pass == CheckPass::EXTRA ? "!" : ""); }
        void RemoveTerminatedApps(CheckPass /*pass*/) override { test.Note("-" + name); }
        void Complete() override { test.Note("+" + name); }
        void Run() override { Run(""); }
        bool IsWanted() const override { return isWanted; }
        void Run(const char* mark) {
            test.Note(name + mark);
            if (onRun) {
                std::exchange(onRun, nullptr)();
            }
        }
        CheckLoopTest& test;
        std::string name;
        std::function<void()> onRun;  // once
        bool isWanted = true;
    };

    void SetUp() override { Fakes::LogCapture::Clear(); }

    void Note(const std::string& what) {
        calls_.push_back(std::to_string(clock_.Elapsed().count()) + " " + what);
    }
    // The calls of a loop that is stopped after `duration`.
    std::vector<std::string> Run(std::chrono::milliseconds duration,
                                 std::vector<std::reference_wrapper<Supervised>> containers,
                                 std::vector<CheckLoop::Periodic> checks = {}) {
        clock_.At(duration, [this] { requests_.Stop(); });
        loop_.emplace(requests_, std::move(containers), std::move(checks), clock_);
        loop_->Run();
        EXPECT_EQ(Fakes::LogCapture::Count(LOG_WARNING, "PROCMGR: CheckThread exit now."), 1U);
        return calls_;
    }

    FakeClock clock_;
    CheckRequests requests_{clock_};
    std::optional<CheckLoop> loop_;
    std::vector<std::string> calls_;
    Part a_{*this, "a"};
    Part b_{*this, "b"};
};

TEST_F(CheckLoopTest, ARequestIsServedOnTheGridAndAnUrgentOneAtOnceToo) {
    a_.onRun = [this] { requests_.Request(); };
    clock_.At(85ms, [this] { requests_.Request(); });
    clock_.At(130ms, [this] { requests_.RequestNow(); });
    clock_.At(135ms, [this] { requests_.Request(); });
    clock_.At(140ms, [this] { requests_.RequestNow(); });
    EXPECT_THAT(Run(10s, {a_}),
                ElementsAre("0 a", "0 -a", "30 a", "30 -a", "90 a", "90 -a", "130 a!", "130 -a",
                            "140 a!", "140 -a", "150 a", "150 -a"));
}

TEST_F(CheckLoopTest, AnotherThreadMakesTheExtraPassUnlessAPassIsUnderWay) {
    const auto collectExit = [this] {
        requests_.RequestNow();
        loop_->RunUrgent();
    };
    clock_.At(40ms, collectExit);
    clock_.At(70ms, [&] {
        a_.onRun = [&] {
            requests_.RequestCompletion();
            collectExit();  // during the pass that it begins itself
        };
        collectExit();
    });
    EXPECT_THAT(Run(10s, {a_}),
                ElementsAre("0 a", "0 -a", "40 a!", "40 -a", "60 a", "60 -a", "70 a!", "70 -a",
                            "70 a!", "70 -a", "70 +a", "90 a", "90 -a"));
}

TEST_F(CheckLoopTest, ARequestIsServedAtItsNextCycleAlsoWhenTheLoopIsWokenLater) {
    // The wait thread wakes the loop 3 ms after the exit.
    clock_.At(88ms, [this] {
        requests_.RequestNow();
        loop_->RunUrgent();
        clock_.Sleep(3ms);
    });
    EXPECT_THAT(Run(10s, {a_}), ElementsAre("0 a", "0 -a", "88 a!", "88 -a", "91 a", "91 -a"));
}

TEST(CheckRequestsTest, TheCheckThreadIsWokenWhenItIsQuietOrHasWaitedForLong) {
    FakeClock clock;
    CheckRequests requests(clock);
    EXPECT_FALSE(requests.WakeWhenQuiet()) << "nothing to wake for";
    for (int i = 0; i < 2; ++i) {
        requests.PostponeWake();
        EXPECT_TRUE(requests.WakeWhenQuiet());
    }
    clock.Sleep(1ms);
    EXPECT_FALSE(requests.WakeWhenQuiet()) << "woken";
    EXPECT_FALSE(requests.WakeWhenQuiet()) << "nothing to wake for";
    // Exits come all the time; the second time a pass has requested one for the next cycle.
    for (const std::chrono::milliseconds limit : {POSTPONE_MAX, CHECK_PERIOD}) {
        requests.PostponeWake();
        clock.Sleep(limit - 1ms);
        requests.PostponeWake();
        EXPECT_TRUE(requests.WakeWhenQuiet());
        clock.Sleep(1ms);
        requests.PostponeWake();
        EXPECT_FALSE(requests.WakeWhenQuiet()) << "woken after " << limit.count() << " ms";
        requests.Request();
    }
}

TEST(CheckRequestsTest, TheCheckThreadGetsItsTurnAndNoWakeUpIsLost) {
    CheckRequests requests;
    std::atomic<int> passes{0};
    requests.RequestNow();
    ASSERT_TRUE(requests.TryBeginNow());
    std::thread check([&] {
        while (requests.WaitForAny(SteadyTime::max()) && requests.Begin()) {
            ++passes;
            requests.End();
        }
    });
    const auto tryToBegin = [&] {
        requests.RequestNow();
        requests.End();
        return !requests.TryBeginNow();
    };
    EXPECT_TRUE(Tests::WaitUntil(tryToBegin)) << "the waiting thread comes first";
    EXPECT_TRUE(Tests::WaitUntil([&] { return passes > 0; }));
    for (int i = 0; i < 100; ++i) {
        const int before = passes;
        requests.RequestNow();
        if (i % 2 == 0) {
            requests.Request();  // for the next cycle: not put off with the extra pass
        } else {
            requests.PostponeWake();
            while (requests.WakeWhenQuiet()) {
            }
        }
        ASSERT_TRUE(Tests::WaitUntil([&] { return passes > before; }));
    }
    requests.Stop();
    check.join();
}

TEST_F(CheckLoopTest, ALongPassDoesNotShiftTheGrid) {
    a_.onRun = [this] {
        clock_.Sleep(100ms);
        requests_.Request();
    };
    EXPECT_THAT(Run(10s, {a_, b_}), ElementsAre("0 a", "100 b", "100 -a", "100 -b", "120 a",
                                                "120 b", "120 -a", "120 -b"));
}

TEST_F(CheckLoopTest, PeriodicChecksRunWhenTheyAreDueAndOnlyTheWantedOnesWakeTheLoop) {
    Part often{*this, "often"};
    Part rare{*this, "rare"};
    clock_.At(700ms, [&] { often.isWanted = false; });
    // A pass may have changed what it would find.
    clock_.At(1880ms, [&] { requests_.Request(); });
    EXPECT_THAT(Run(2500ms, {}, {{CycleTimer(10, 11), often}, {CycleTimer(20, 21), rare}}),
                ElementsAre("300 often", "600 rare", "630 often", "960 often", "1230 rare",
                            "1860 often", "1860 rare", "1950 often", "2490 often", "2490 rare"));
}

TEST_F(CheckLoopTest, AFailureIsLoggedAndTheWorkTriedAgain) {
    Part fails{*this, "fails"};
    Part works{*this, "works"};
    fails.onRun = [] { throw std::runtime_error("no memory"); };
    a_.onRun = [] { throw std::runtime_error("no process"); };
    EXPECT_THAT(Run(100ms, {a_, b_}, {{CycleTimer(0, 100), fails}, {CycleTimer(0, 100), works}}),
                ElementsAre("0 a", "0 fails", "0 works", "30 a", "30 b", "30 -a", "30 -b"));
    for (const char* reason : {"no process", "no memory"}) {
        EXPECT_EQ(Fakes::LogCapture::Count(
                      LOG_ERR, std::string("PROCMGR: CheckThread : ") + reason + ", try again"),
                  1U);
    }
}

}  // namespace
}  // namespace ProcMgr
