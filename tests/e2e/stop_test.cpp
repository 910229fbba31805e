#include "tests/e2e/e2e_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::Contains;

class Stop : public E2e {
protected:
    // A service that says when it is ready for SIGTERM, and then that it got it.
    static std::string Noting(const std::string& name, const std::string& more = "") {
        return Entry(name,
                     "note-term, " + In("ended") + ", " + name + ", touch, " + In(name) + ", stay",
                     more);
    }
    static std::string Ignoring(const std::string& name, const std::string& more) {
        return Entry(name, "ignore-term, touch, " + In(name) + ", stay", more);
    }
    static bool AreReady(const std::vector<std::string>& names) {
        return WaitUntil([&] {
            return std::all_of(names.begin(), names.end(),
                               [](const auto& name) { return std::filesystem::exists(In(name)); });
        });
    }
};

TEST_F(Stop, EndsEverythingInReverseOrder) {
    Boot(Noting("c", "depends: [b]") + Noting("b", "depends: [a]") + Noting("a"));
    ASSERT_TRUE(WaitForLine(START_UP_END));
    ASSERT_TRUE(AreReady({"a", "b", "c"}));
    harness_.Log().Clear();
    ExpectOrderlyStop();
    EXPECT_EQ(ReadFile(In("ended")), "c\nb\na\n");
    const auto lines = MaskedLines();
    for (const char* line : {"4 PROCMGR: WaitThread exit now.", "4 PROCMGR: CheckThread exit now.",
                             "4 PROCMGR: ReceiveChildProcessMsgThread exit now."}) {
        EXPECT_THAT(lines, Contains(line));
    }
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "6 process-manager ProcMgrRun finished");
}

TEST_F(Stop, KillsWhatDoesNotEnd) {
    Boot(Ignoring("stubborn", "term_timeout: 200") + Noting("willing"));
    ASSERT_TRUE(AreReady({"stubborn", "willing"}));
    ASSERT_TRUE(WaitForLine(START_UP_END));
    ExpectOrderlyStop();
    EXPECT_EQ(ReadFile(In("ended")), "willing\n");
    EXPECT_EQ(harness_.Log().Count("PROCMGR : SendSignal: 9 to app=stubborn"), 1U);
    EXPECT_EQ(harness_.Log().Count("PROCMGR : SendSignal: 9 to app=willing"), 0U);
}

TEST_F(Stop, InterruptIsAStopToo) {
    Boot(Noting("svc"));
    ASSERT_TRUE(AreReady({"svc"}));
    harness_.Signal(SIGINT);
    const auto status = harness_.WaitForExit(PATIENCE);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(ReadFile(In("ended")), "svc\n");
}

TEST_F(Stop, EndsTheWaitForAReport) {
    Boot(Noting("silent", "reporting: true") + Noting("zz_never"));
    ASSERT_TRUE(AreReady({"silent"}));
    ASSERT_TRUE(WaitForLine("waiting for baseApp=silent"));
    ExpectOrderlyStop();
    EXPECT_EQ(ReadFile(In("ended")), "silent\n");
    EXPECT_FALSE(std::filesystem::exists(In("zz_never")));
}

TEST_F(Stop, IsNoEndOfStartUpWhenTheLastServiceIsAwaited) {
    Boot(Noting("silent", "reporting: true"));
    ASSERT_TRUE(AreReady({"silent"}));
    ASSERT_TRUE(WaitForLine("waiting for baseApp=silent"));
    ExpectOrderlyStop();
    EXPECT_EQ(harness_.Log().Count("EnableWatchDog flag=1"), 0U);
}

TEST_F(Stop, ASecondSignalEndsAtOnce) {
    Boot(Ignoring("stubborn", "term_timeout: 600000"));
    ASSERT_TRUE(AreReady({"stubborn"}));
    ASSERT_TRUE(WaitForLine(START_UP_END));
    harness_.Signal(SIGTERM);
    ASSERT_TRUE(WaitForLine("PROCMGR : SendSignal: 15 to app=stubborn"));
    EXPECT_TRUE(harness_.IsRunning());
    harness_.Signal(SIGTERM);
    const auto status = harness_.WaitForExit(PATIENCE);
    ASSERT_TRUE(status);
    EXPECT_NE(*status, 0) << "what was cut short is no success";
}

}  // namespace
