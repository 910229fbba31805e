// The orderly stop: its order, its signals, and stops at awkward times.
#include "tests/e2e/e2e_fixture.h"

namespace {

using testing::Contains;

class Stop : public E2e {
protected:
    // A service that makes the file NAME when it is ready for SIGTERM, and adds NAME to the file
    // "ended" when it gets it.
    static std::string Noting(const std::string& name, const std::string& more = "") {
        return Entry(name,
                     "note-term, " + In("ended") + ", " + name + ", touch, " + In(name) + ", stay",
                     more);
    }
    static std::string Ignoring(const std::string& name, const std::string& more) {
        return Entry(name, "ignore-term, touch, " + In(name) + ", stay", more);
    }
    static bool AreReady(const std::vector<std::string>& names) {
        return std::all_of(names.begin(), names.end(), WaitForFile);
    }
};

TEST_F(Stop, EndsEverythingInReverseOrder) {
    BootWhole(Noting("c", "depends: [b]") + Noting("b", "depends: [a]") + Noting("a"));
    ASSERT_TRUE(AreReady({"a", "b", "c"}));
    Log().Clear();
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
    BootWhole(Ignoring("stubborn", "term_timeout: 200") + Noting("willing"));
    ASSERT_TRUE(AreReady({"stubborn", "willing"}));
    ExpectOrderlyStop();
    EXPECT_EQ(ReadFile(In("ended")), "willing\n");
    EXPECT_EQ(Log().Count("PROCMGR : SendSignal: 9 to app=stubborn"), 1U);
    EXPECT_EQ(Log().Count("PROCMGR : SendSignal: 9 to app=willing"), 0U);
}

TEST_F(Stop, InterruptIsAStopToo) {
    Boot(Noting("svc"));
    ASSERT_TRUE(AreReady({"svc"}));
    harness_.Signal(SIGHUP);
    EXPECT_TRUE(WaitForLine("SIGHUP")) << "changes nothing";
    ExpectOrderlyStop(SIGINT);
    EXPECT_EQ(ReadFile(In("ended")), "svc\n");
}

TEST_F(Stop, EndsTheWaitForAReport) {
    // With the last service awaited, the end of the wait is not the end of start-up.
    for (const std::string& more : {Noting("zz_never"), std::string()}) {
        std::filesystem::remove(In("ended"));
        Boot(Noting("silent", "reporting: true") + more);
        ASSERT_TRUE(AreReady({"silent"}));
        ASSERT_TRUE(WaitForLine("waiting for baseApp=silent"));
        ExpectOrderlyStop();
        EXPECT_EQ(ReadFile(In("ended")), "silent\n");
        EXPECT_FALSE(Exists("zz_never"));
        EXPECT_EQ(Log().Count("EnableWatchDog flag=1"), 0U);
        EndRun();
        std::filesystem::remove(In("silent"));
    }
}

TEST_F(Stop, ASecondSignalEndsAtOnce) {
    BootWhole(Ignoring("stubborn", "term_timeout: 600000"));
    ASSERT_TRUE(AreReady({"stubborn"}));
    harness_.Signal(SIGTERM);
    ASSERT_TRUE(WaitForLine("PROCMGR : SendSignal: 15 to app=stubborn"));
    EXPECT_TRUE(harness_.IsRunning());
    harness_.Signal(SIGTERM);
    const auto status = harness_.WaitForExit();
    ASSERT_TRUE(status);
    EXPECT_NE(*status, 0) << "a stop that was cut short is no success";
    EndRun();
}

}  // namespace
