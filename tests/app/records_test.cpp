#include <gtest/gtest.h>

#include <tuple>

#include "app/base_app_info.h"
#include "app/general_app_info.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;

// A manifest in which everything that a record takes over differs from its default.
ManifestData FullManifest() {
    ManifestData data;
    data.name = "full";
    data.bin = "/usr/bin/full";
    data.args = {"-a", "two words"};
    data.env = {{"A", "1"}, {"B", "2"}};
    data.uid = 11;
    data.gid = 22;
    data.depends = {"one", "two"};
    data.reporting = true;
    data.restart = "on-forever";
    data.termTimeoutMs = 1234;
    data.forceTerm = false;
    data.nice = -7;
    data.coreAffinity = {2, 3};
    data.delayCoreAffinity = true;
    data.resourceGroup = "group";
    data.cpuset = "set";
    data.blkioGroup = "blk";
    data.cgroups = {{"memory", "m"}};
    data.securityContext = "context";
    data.nodeType = 5;
    data.startupPriority = 3;
    data.startupEntry = "/entry";
    data.heartbeat = true;
    data.sharepoolGroups = {{"pool", "read"}};
    data.vfId = 9;
    return data;
}

// What a record takes over from its manifest, and again from a later one.
auto Taken(const AppSpec& app) {
    return std::tie(app.uid_, app.gid_, app.coreAffinity_, app.resGroupName_, app.execPath_,
                    app.arguments_, app.envs_, app.termTimeout_, app.securityCon_, app.cpuset_,
                    app.vfId_, app.blkioGroupName_, app.cgroupPath_, app.nice_, app.forceTerm_,
                    app.sharepoolGroups_, app.heartBeatSwitch_);
}
auto Taken(const ManifestData& data) {
    return std::tie(data.uid, data.gid, data.coreAffinity, data.resourceGroup, data.bin, data.args,
                    data.env, data.termTimeoutMs, data.securityContext, data.cpuset, data.vfId,
                    data.blkioGroup, data.cgroups, data.nice, data.forceTerm, data.sharepoolGroups,
                    data.heartbeat);
}

TEST(Records, TakeTheirManifestAndAgainALaterOne) {
    ManifestData before = SomeService();
    before.setRtPrio = "12";
    before.setRtType = "SCHED_RR";
    GeneralAppInfo app("old", Manifest(before), "zornmgr");
    EXPECT_TRUE(Taken(app) == Taken(before));
    EXPECT_TRUE(app.rtEnable_);
    app.pid_ = 99;
    MoveTo(app, RUNNING);

    const ManifestData after = FullManifest();
    app.Refresh(Manifest(after));
    EXPECT_TRUE(Taken(app) == Taken(before)) << "the process runs by what it was started by";
    app.BeginTermination(SteadyTime{});
    EXPECT_EQ(app.termTimeout_, after.termTimeoutMs);
    EXPECT_EQ(app.forceTerm_, after.forceTerm);
    const auto next = app.MakeStart({}, {});
    ASSERT_TRUE(next);
    app.TakeSpec(*next);
    EXPECT_TRUE(Taken(app) == Taken(after));
    EXPECT_FALSE(app.rtEnable_) << "the real-time settings are worked out anew";
    EXPECT_EQ(app.schedPolicy_, SchedPolicyType::NOT_SET);
    EXPECT_EQ(app.restartPolicy_, after.restart);
    EXPECT_EQ(app.startupPriority_, after.startupPriority);
    EXPECT_EQ(app.nodeType_, after.nodeType);
    EXPECT_EQ(app.isDelayCoreAffinity_, after.delayCoreAffinity);
    EXPECT_EQ(app.owner_, "zornmgr");
    EXPECT_EQ(app.pid_, 99);
    EXPECT_EQ(app.GetState(), RUNNING);

    const BaseAppInfo base(Manifest(after));
    EXPECT_EQ(base.isReporting_, after.reporting);
    EXPECT_EQ(base.dependList_, after.depends);
    EXPECT_EQ(base.forceTerm_, after.forceTerm);
    EXPECT_EQ(base.startupEntryPath_, after.startupEntry);
    EXPECT_EQ(base.nodeType_, after.nodeType);
}

TEST(Records, RealTimeSettings) {
    struct Case {
        const char* priority;
        const char* type;
        bool isEnabled;
        SchedPolicyType policy;
        int32_t value;
        const char* log;  // behind the application's name; null: none
    };
    constexpr auto NONE = SchedPolicyType::NOT_SET;
    constexpr auto FIFO = SchedPolicyType::FIFO;
    constexpr auto ROUND_ROBIN = SchedPolicyType::ROUND_ROBIN;
    const Case cases[] = {
        {"", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"true", "SCHED_FIFO", true, NONE, -1, nullptr},
        {"05", "SCHED_FIFO", true, FIFO, 5, "rtPrio=5, rtPolicy=SCHED_FIFO"},
        {"99", "SCHED_RR", true, ROUND_ROBIN, 99, "rtPrio=99, rtPolicy=SCHED_RR"},
        {"0", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"100", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"99999999999999999999999999", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"12a", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=12a"},
        {"-5", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=-5"},
        {"5", "SCHED_OTHER", false, NONE, -1, nullptr},
    };
    for (const Case& test : cases) {
        ManifestData data = SomeService();
        data.setRtPrio = test.priority;
        data.setRtType = test.type;
        LogCapture::Clear();
        const BaseAppInfo app(Manifest(data));
        SCOPED_TRACE(std::string(test.priority) + '/' + test.type);
        EXPECT_EQ(app.rtEnable_, test.isEnabled);
        EXPECT_EQ(app.schedPolicy_, test.policy);
        EXPECT_EQ(app.rtPriority_, test.value);
        std::vector<LogLine> lines;
        if (test.log != nullptr) {
            lines.push_back({6, std::string("PROCMGR : svc, ") + test.log});
        }
        EXPECT_EQ(LogCapture::Lines(), lines);
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
