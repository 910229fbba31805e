#include <gtest/gtest.h>

#include "app/app_info.h"
#include "main/proc_mgr_env.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;

// A manifest in which every key differs from its default.
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
    data.numaType = 6;
    data.startupPriority = 3;
    data.startupEntry = "/entry";
    data.heartbeat = true;
    data.sharepoolGroups = {{"pool", "read"}};
    data.vfId = 9;
    data.dynamic = true;
    return data;
}

// What a record takes over from its manifest, and again from a later one.
void ExpectTaken(const AppInfo& app, const ManifestData& data) {
    EXPECT_EQ(app.uid_, data.uid);
    EXPECT_EQ(app.gid_, data.gid);
    EXPECT_EQ(app.coreAffinity_, data.coreAffinity);
    EXPECT_EQ(app.resGroupName_, data.resourceGroup);
    EXPECT_EQ(app.execPath_, data.bin);
    EXPECT_EQ(app.arguments_, data.args);
    EXPECT_EQ(app.envs_, data.env);
    EXPECT_EQ(app.termTimeout_, data.termTimeoutMs);
    EXPECT_EQ(app.securityCon_, data.securityContext);
    EXPECT_EQ(app.cpuset_, data.cpuset);
    EXPECT_EQ(app.vfId_, data.vfId);
    EXPECT_EQ(app.blkioGroupName_, data.blkioGroup);
    EXPECT_EQ(app.cgroupPath_, data.cgroups);
}

// What only the first one decides.
void ExpectTakenAtFirst(const AppInfo& app, const ManifestData& data) {
    EXPECT_EQ(app.restartPolicy_, data.restart);
    EXPECT_EQ(app.nodeType_, data.nodeType);
    EXPECT_EQ(app.numaType_, data.numaType);
    EXPECT_EQ(app.startupPriority_, data.startupPriority);
}

void ExpectTakenByGeneral(const GeneralAppInfo& app, const ManifestData& data) {
    ExpectTaken(app, data);
    EXPECT_EQ(app.nice_, data.nice);
    EXPECT_EQ(app.forceTerm_, data.forceTerm);
    EXPECT_EQ(app.sharepoolGroups_, data.sharepoolGroups);
    EXPECT_EQ(app.heartBeatSwitch_, data.heartbeat);
}

class RecordsTest : public testing::Test {
protected:
    void SetUp() override {
        ProcMgrEnv::GetInstance().SetHome("/home/everyone");
        LogCapture::Clear();
    }
};

TEST_F(RecordsTest, ARecordTakesItsManifest) {
    const ManifestData data = FullManifest();
    const BaseAppInfo base(Manifest(data));
    ExpectTaken(base, data);
    ExpectTakenAtFirst(base, data);
    EXPECT_EQ(base.appName_, data.name);
    EXPECT_EQ(base.home_, "/home/everyone");
    EXPECT_EQ(base.isReporting_, data.reporting);
    EXPECT_EQ(base.dependList_, data.depends);
    EXPECT_EQ(base.forceTerm_, data.forceTerm);
    EXPECT_EQ(base.startupEntryPath_, data.startupEntry);

    const GeneralAppInfo general("given", Manifest(data), "vintor");
    ExpectTakenByGeneral(general, data);
    ExpectTakenAtFirst(general, data);
    EXPECT_EQ(general.appName_, "given");
    EXPECT_EQ(general.owner_, "vintor");
    EXPECT_FALSE(general.isReporting_);
}

TEST_F(RecordsTest, RefreshTakesOverWhatTheManifestSaysAndLeavesWhatRuns) {
    ManifestData before = SomeService();
    before.setRtPrio = "12";
    before.setRtType = "SCHED_RR";
    GeneralAppInfo app("old", Manifest(before), "zornmgr");
    app.pid_ = 99;
    app.state_ = RUNNING;
    app.reportType_ = RUNNING_NORMAL_START;

    const ManifestData after = FullManifest();
    app.Refresh(Manifest(after), "new");
    ExpectTakenByGeneral(app, after);
    EXPECT_EQ(app.appName_, "new");
    EXPECT_FALSE(app.rtEnable_) << "the real-time settings are worked out anew";
    EXPECT_EQ(app.schedPolicy_, SchedPolicyType::NOT_SET);
    EXPECT_EQ(app.rtPriority_, -1);
    ExpectTakenAtFirst(app, before);
    EXPECT_EQ(app.owner_, "zornmgr");
    EXPECT_EQ(app.pid_, 99);
    EXPECT_EQ(app.state_, RUNNING);
    EXPECT_EQ(app.reportType_, RUNNING_NORMAL_START);
}

TEST_F(RecordsTest, PatternsOfAGeneralApplicationAreFound) {
    ManifestData data = SomeService();
    data.bin = "match(/opt/.*)";
    data.args = {"-v", "match([0-9]+)"};
    data.env = {{"FIXED", "1"}, {"OPEN", "match(a|b)"}};
    data.vfIdPattern = "match([0-9])";
    const GeneralAppInfo dynamic("app", Manifest(data), "EM");
    EXPECT_TRUE(dynamic.dynamicExecPath_);
    EXPECT_EQ(dynamic.execPathPattern_, data.bin);
    EXPECT_TRUE(dynamic.dynamicArguments_);
    EXPECT_EQ(dynamic.envPatterns_, data.env);
    EXPECT_TRUE(dynamic.dynamicVfId_);
    EXPECT_EQ(dynamic.vfIdPattern_, data.vfIdPattern);
}

TEST_F(RecordsTest, RealTimeSettings) {
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
        {"false", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"true", "SCHED_FIFO", true, NONE, -1, nullptr},
        {"05", "SCHED_FIFO", true, FIFO, 5, "rtPrio=5, rtPolicy=SCHED_FIFO"},
        {"99", "SCHED_RR", true, ROUND_ROBIN, 99, "rtPrio=99, rtPolicy=SCHED_RR"},
        {"0", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"100", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"99999999999999999999999999", "SCHED_FIFO", false, NONE, -1, nullptr},
        {"12a", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=12a"},
        {"-5", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=-5"},
        {"TRUE", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=TRUE"},
        {"5", "SCHED_OTHER", false, NONE, -1, nullptr},
    };
    for (const Case& test : cases) {
        ManifestData data = SomeService();
        data.setRtPrio = test.priority;
        data.setRtType = test.type;
        LogCapture::Clear();
        const BaseAppInfo app(Manifest(data));
        const std::string what = std::string(test.priority) + '/' + test.type;
        EXPECT_EQ(app.rtEnable_, test.isEnabled) << what;
        EXPECT_EQ(app.schedPolicy_, test.policy) << what;
        EXPECT_EQ(app.rtPriority_, test.value) << what;
        std::vector<LogLine> lines;
        if (test.log != nullptr) {
            lines.push_back({6, std::string("PROCMGR : svc, ") + test.log});
        }
        EXPECT_EQ(LogCapture::Lines(), lines) << what;
    }
}

TEST_F(RecordsTest, CoreAffinityMarker) {
    struct Case {
        std::vector<uint32_t> cores;
        std::string priority;
        std::vector<uint32_t> coresAfter;
        SchedPolicyType policy;
        int32_t value;
        bool isEnabled;
    };
    const Case cases[] = {
        {{255}, "", {}, SchedPolicyType::FIFO, 99, false},
        {{255, 1}, "7", {}, SchedPolicyType::FIFO, 99, true},
        {{255}, "true", {}, SchedPolicyType::FIFO, 99, true},
        {{1, 255}, "", {1, 255}, SchedPolicyType::NOT_SET, -1, false},
        {{}, "", {}, SchedPolicyType::NOT_SET, -1, false},
    };
    for (const Case& test : cases) {
        ManifestData data = SomeService();
        data.coreAffinity = test.cores;
        data.delayCoreAffinity = true;
        data.setRtPrio = test.priority;
        data.setRtType = "SCHED_RR";
        LogCapture::Clear();
        const GeneralAppInfo app("app", Manifest(data), "EM");
        EXPECT_EQ(app.coreAffinity_, test.coresAfter);
        EXPECT_EQ(app.schedPolicy_, test.policy);
        EXPECT_EQ(app.rtPriority_, test.value);
        EXPECT_EQ(app.rtEnable_, test.isEnabled);
        EXPECT_EQ(app.isDelayCoreAffinity_, !test.coresAfter.empty());
        EXPECT_EQ(LogCapture::Count(6, "PROCMGR : app, update schedPolicy to SCHED_FIFO"),
                  test.policy == SchedPolicyType::FIFO ? 1U : 0U);
    }
}

}  // namespace
}  // namespace ProcMgr::App
