#include "baseservice/quick_start_wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <string>

#include "main/common/daemon_signals.h"
#include "main/common/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/main/common/fake_clock.h"
#include "tests/support/isolated.h"
#include "tests/support/log_mask.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;

using QuickStartWaitTest = IsolatedTest;

// The signal is looked for every 5 ms, the marker file every 100 ms. Both stay, so they come last.
TEST_F(QuickStartWaitTest, EndsAfterTenSecondsOrWithAStopTheMarkerOrTheSignal) {
    std::atomic<bool> isStopping{false};
    const struct {
        std::function<void()> event;  // at 52 ms
        std::chrono::milliseconds end;
        std::string line;
    } cases[] = {
        {[] {}, 10s, "timeout!!"},
        {[&] { isStopping = true; }, 55ms, "ended by a stop"},
        {[] { std::ofstream(QUICK_START_MARKER).flush(); }, 100ms, "catch continue signal time="},
        {[] { OnContinueSignal(SIGCONT); }, 55ms, "catch continue signal time=STAMP"},
    };
    const auto body = [&] {
        MountTmpfs("/sys/fs/cgroup");
        for (const auto& [event, end, line] : cases) {
            isStopping = false;
            ProcMgrEnv::GetInstance().SetQuickStart(true);
            FakeClock clock;
            clock.At(52ms, event);
            Fakes::LogCapture::Clear();
            QuickStartWait(isStopping, clock).WaitContinueSignal();
            EXPECT_EQ(clock.Elapsed(), end);
            EXPECT_FALSE(ProcMgrEnv::GetInstance().IsQuickStart());
            EXPECT_TRUE(MaskLog(Fakes::LogCapture::Lines().at(0).text).ends_with(line));
        }
    };
    EXPECT_EQ(RunIsolated(body), 0);
}

}  // namespace
}  // namespace ProcMgr
