#include "app/signals.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "app/base_app_info.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/child.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;
using Tests::Child;

TEST(AppSignals, APidThatIsInvalidOrFreeIsRefused) {
    Child child;
    const pid_t pid = child.Pid();
    child.Kill();
    BaseAppInfo app(Manifest(SomeService()));
    app.pid_ = -1;
    LogCapture::Clear();
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", 0));
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", -1));
    EXPECT_FALSE(app.TermProcess());
    EXPECT_FALSE(SendSignal(SIGTERM, "svc", pid));
    const std::string failed = "PROCMGR : SendSignal failed: ";
    const std::string id = std::to_string(pid);
    EXPECT_EQ(
        LogCapture::Lines(),
        (std::vector<LogLine>{{3, failed + "appName svc's pid=0 is invalid"},
                              {3, failed + "appName svc's pid=-1 is invalid"},
                              {3, "PROCMGR : TermProcess failed: the pid=-1 is invalid"},
                              {6, "PROCMGR : SendSignal: 15 to app=svc, pid=" + id},
                              {3, failed + "kill failed appName=svc, pid=" + id + ", errno=3"}}));
}

TEST(AppSignals, TermProcessSignalsNoPidWhoseExitIsStored) {
    Child child;
    BaseAppInfo app(Manifest(SomeService()));
    app.pid_ = child.Pid();
    app.SetExitStatus(0);
    LogCapture::Clear();
    EXPECT_TRUE(app.TermProcess());
    EXPECT_TRUE(LogCapture::Lines().empty()) << "no signal was sent";
    app.SetStarted(child.Pid());
    EXPECT_TRUE(app.TermProcess());
    const std::string id = std::to_string(child.Pid());
    EXPECT_TRUE(
        LogCapture::Contains(6, "PROCMGR : SendSignal: Successfully term appName=svc, pid=" + id));
    EXPECT_EQ(child.Wait(), SIGTERM);
    Child other;
    EXPECT_TRUE(SendSignal(SIGUSR1, "svc", other.Pid()));
    EXPECT_EQ(other.Wait(), SIGUSR1);
    EXPECT_TRUE(LogCapture::ContainsPart(6, "Successfully send 10 to appName=svc"));
}

}  // namespace
}  // namespace ProcMgr::App
