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

std::atomic<bool> g_isStopping{false};

// The signal is looked for every 5 ms, the marker file every 100 ms.
TEST_F(QuickStartWaitTest, EndsWithTheSignalTheMarkerAStopOrAfterTenSeconds) {
    const struct {
        bool isQuickStart;
        std::chrono::milliseconds time;  // of the event
        std::function<void()> event;
        std::chrono::milliseconds end;
        std::string line;
    } cases[] = {
        {false, 0ms, [] {}, 0ms, "is not quickstart, so not wait for continue signal"},
        {true, 52ms, [] { OnContinueSignal(SIGCONT); }, 55ms,
         "STAMP wait success for continue startup, catch continue signal time=STAMP"},
        {true, 52ms, [] { std::ofstream(QUICK_START_MARKER).flush(); }, 100ms,
         "STAMP wait success for continue startup, catch continue signal time="},
        {true, 52ms, [] { g_isStopping = true; }, 55ms,
         "STAMP wait for continue startup ended by a stop"},
        {true, 10001ms, [] { OnContinueSignal(SIGCONT); }, 10000ms,
         "STAMP wait for continue startup timeout!!"},
    };
    for (const auto& test : cases) {
        const int status = RunIsolated([&] {
            MountTmpfs("/sys/fs/cgroup");
            ProcMgrEnv::GetInstance().SetQuickStart(test.isQuickStart);
            FakeClock clock;
            clock.At(test.time, test.event);
            Fakes::LogCapture::Clear();
            QuickStartWait(g_isStopping, clock).WaitContinueSignal();
            EXPECT_EQ(clock.Elapsed(), test.end);
            EXPECT_FALSE(ProcMgrEnv::GetInstance().IsQuickStart());
            const auto lines = Fakes::LogCapture::Lines();
            ASSERT_EQ(lines.size(), 1U);
            EXPECT_EQ(MaskLog(lines[0].text), test.line);
        });
        EXPECT_EQ(status, 0) << test.line;
    }
}

}  // namespace
}  // namespace ProcMgr
