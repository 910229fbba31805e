// Quick start: the pause in start-up, its ends, and the kernel log that replaces syslog until then.
#include "tests/e2e/e2e_fixture.h"

namespace {

using testing::Contains;

class QuickStart : public E2e {
protected:
    void SetUp() override {
        E2e::SetUp();
        if (!IsSkipped()) {
            WriteFile(BASE_YAML, "services:\n" + Entry("svc", "touch, " + In("svc") + ", stay"));
        }
    }

    // The lines of the kernel log; none of them ends with a newline.
    static std::vector<std::string> KernelLines() {
        const std::string text = MaskLog(ReadFile("/dev/kmsg"));
        constexpr size_t LEVEL = 3;  // "<6>"
        const std::string head = " PROCMGR[PID] ";
        std::vector<std::string> lines;
        for (size_t at = text.find(head); at != std::string::npos;) {
            const size_t next = text.find(head, at + 1);
            lines.push_back(text.substr(at - LEVEL, next - at));
            at = next;
        }
        return lines;
    }
};

// Until the end of the pause everything goes to the kernel log, then to syslog.
TEST_F(QuickStart, WaitsForTheContinueSignal) {
    harness_.Start({BASE_YAML, "true"});
    ASSERT_TRUE(
        WaitUntil([] { return ReadFile("/dev/kmsg").find("init success") != std::string::npos; }));
    EXPECT_FALSE(Exists("svc"));
    EXPECT_TRUE(MaskedLines().empty());
    harness_.Signal(SIGCONT);
    ASSERT_TRUE(WaitForLine(START_UP_END));
    EXPECT_TRUE(WaitForFile("svc"));
    const auto kernelLines = KernelLines();
    ASSERT_FALSE(kernelLines.empty());
    EXPECT_EQ(kernelLines.front(),
              "<6> PROCMGR[PID] ProcMgr: main begin: baseServiceCfgPath: /run/e2e/base.yaml");
    EXPECT_THAT(kernelLines, Contains("<4> PROCMGR[PID] STAMP PROCMGR: creat anonymous pipe "
                                      "success, read pipe fd=N, write pipe fd=N"));
    EXPECT_EQ(kernelLines.back(),
              "<6> PROCMGR[PID] STAMP wait success for continue startup, catch continue signal "
              "time=STAMP");
    EXPECT_EQ(MaskedLines()[0], "6 pm Get board info success slotId_=0");
}

TEST_F(QuickStart, TheMarkerFileEndsTheWaitAndIsRemoved) {
    WriteFile(MARKER, "");
    harness_.Start({BASE_YAML, "true"});
    ASSERT_TRUE(WaitForLine(START_UP_END));
    EXPECT_TRUE(WaitUntil([] { return !std::filesystem::exists(MARKER); }));
}

TEST_F(QuickStart, AnyOtherWordIsNoQuickStart) {
    harness_.Start({BASE_YAML, "True", "true"});
    ASSERT_TRUE(WaitForLine(START_UP_END));
    EXPECT_EQ(Log().Count("is not quickstart, so not wait for continue signal"), 1U);
    EXPECT_EQ(ReadFile("/dev/kmsg"), "");
}

}  // namespace
