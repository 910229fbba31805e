#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/base_app_info.h"
#include "app/general_app_info.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;

TEST(Records, ANewConfigurationCountsFromTheNextStart) {
    ManifestData before = SomeService();
    before.setRtPrio = "12";
    before.setRtType = "SCHED_RR";
    GeneralAppInfo app("old", Manifest(before), "zornmgr");
    EXPECT_TRUE(app.rtEnable_);
    app.pid_ = 99;
    MoveTo(app, RUNNING);

    ManifestData after = SomeService();
    after.bin = "/usr/bin/full";
    after.env = {{"A", "1"}};
    after.termTimeoutMs = 1234;
    after.forceTerm = !before.forceTerm;
    after.restart = "on-forever";
    after.startupPriority = 3;
    app.Refresh(Manifest(after));
    EXPECT_EQ(app.execPath_, before.bin) << "the process goes on by its own specification";
    app.BeginTermination(SteadyTime{});
    EXPECT_EQ(app.termTimeout_, after.termTimeoutMs);
    EXPECT_EQ(app.forceTerm_, after.forceTerm);
    const auto next = app.MakeStart({}, {});
    ASSERT_TRUE(next);
    app.TakeSpec(*next);
    EXPECT_EQ(app.appName_, "old");
    EXPECT_EQ(app.execPath_, after.bin);
    EXPECT_EQ(app.envs_, after.env);
    EXPECT_FALSE(app.rtEnable_) << "the real-time settings are computed anew";
    EXPECT_EQ(app.schedPolicy_, SchedPolicyType::NOT_SET);
    EXPECT_EQ(app.restartPolicy_, after.restart);
    EXPECT_TRUE(app.IsPriority());
    EXPECT_EQ(app.owner_, "zornmgr");
    EXPECT_EQ(app.pid_, 99);
    EXPECT_EQ(app.GetState(), RUNNING);
}

TEST(Records, RealTimeSettings) {
    constexpr auto NONE = SchedPolicyType::NOT_SET;
    const struct {
        std::string priority;
        std::string type;
        bool isEnabled;
        SchedPolicyType policy;
        int32_t value;
        std::string log;  // after the application's name; empty: none
    } cases[] = {
        {"", "SCHED_FIFO", false, NONE, -1, ""},
        {"true", "SCHED_FIFO", true, NONE, -1, ""},
        {"05", "SCHED_FIFO", true, SchedPolicyType::FIFO, 5, "rtPrio=5, rtPolicy=SCHED_FIFO"},
        {"99", "SCHED_RR", true, SchedPolicyType::ROUND_ROBIN, 99, "rtPrio=99, rtPolicy=SCHED_RR"},
        {"0", "SCHED_FIFO", false, NONE, -1, ""},
        {"100", "SCHED_FIFO", false, NONE, -1, ""},
        {"99999999999999999999999999", "SCHED_FIFO", false, NONE, -1, ""},
        {"12a", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=12a"},
        {"-5", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=-5"},
        {"5", "SCHED_OTHER", false, NONE, -1, ""},
    };
    for (const auto& test : cases) {
        ManifestData data = SomeService();
        data.setRtPrio = test.priority;
        data.setRtType = test.type;
        LogCapture::Clear();
        const BaseAppInfo app(Manifest(data));
        SCOPED_TRACE(test.priority + '/' + test.type);
        EXPECT_EQ(app.rtEnable_, test.isEnabled);
        EXPECT_EQ(app.schedPolicy_, test.policy);
        EXPECT_EQ(app.rtPriority_, test.value);
        EXPECT_EQ(LogCapture::Lines().size(), test.log.empty() ? 0U : 1U);
        EXPECT_EQ(LogCapture::Contains(6, "PROCMGR : svc, " + test.log), !test.log.empty());
    }
}

TEST(Records, TheCoreAffinityMarkerIsARealTimeSetting) {
    for (const std::vector<uint32_t>& cores :
         std::vector<std::vector<uint32_t>>{{255, 1}, {1, 255}, {}}) {
        const bool isMarked = cores.size() == 2 && cores[0] == 255;
        ManifestData data = SomeService();
        data.coreAffinity = cores;
        data.delayCoreAffinity = true;
        data.setRtPrio = "7";
        data.setRtType = "SCHED_RR";
        LogCapture::Clear();
        const GeneralAppInfo app("app", Manifest(data), "EM");
        EXPECT_EQ(app.coreAffinity_, isMarked ? std::vector<uint32_t>() : cores);
        EXPECT_EQ(app.schedPolicy_,
                  isMarked ? SchedPolicyType::FIFO : SchedPolicyType::ROUND_ROBIN);
        EXPECT_EQ(app.rtPriority_, isMarked ? 99 : 7);
        EXPECT_EQ(app.isDelayCoreAffinity_, cores.size() == 2 && !isMarked);
        EXPECT_EQ(LogCapture::Count(6, "PROCMGR : app, update schedPolicy to SCHED_FIFO"),
                  isMarked ? 1U : 0U);
    }
}

}  // namespace
}  // namespace ProcMgr::App
