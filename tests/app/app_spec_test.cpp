// What a record takes over from its manifest and from the values of a request.
#include <map>

#include "tests/app/app_test_support.h"

namespace ProcMgr::App {
namespace {

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
        {"99999999999", "SCHED_FIFO", false, NONE, -1, ""},
        {"12a", "SCHED_FIFO", false, NONE, -1, "set_rt_prio has invalid char=12a"},
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
    for (const bool isMarked : {false, true}) {
        ManifestData data = SomeService();
        data.coreAffinity =
            isMarked ? std::vector<uint32_t>{255, 1} : std::vector<uint32_t>{1, 255};
        data.delayCoreAffinity = true;
        data.setRtPrio = "7";
        data.setRtType = "SCHED_RR";
        LogCapture::Clear();
        const GeneralAppInfo app = GeneralApp(data);
        EXPECT_EQ(app.coreAffinity_, isMarked ? std::vector<uint32_t>() : data.coreAffinity);
        EXPECT_EQ(app.schedPolicy_,
                  isMarked ? SchedPolicyType::FIFO : SchedPolicyType::ROUND_ROBIN);
        EXPECT_EQ(app.rtPriority_, isMarked ? 99 : 7);
        EXPECT_EQ(app.isDelayCoreAffinity_, !isMarked);
        EXPECT_EQ(LogCapture::Contains(6, "PROCMGR : svc, update schedPolicy to SCHED_FIFO"),
                  isMarked);
    }
}

using Values = std::vector<std::string>;

ManifestData Dynamic() {
    ManifestData data = SomeService();
    data.dynamic = true;
    data.bin = "match(/opt/[a-z]+)";
    data.args = {"match(.*)"};
    data.env = {{"FIXED", "1"}, {"LEVEL", "match([0-9]{1,2})"}};
    data.vfIdPattern = "match([0-9a]*)";
    return data;
}

class DynamicParameters : public AppTest {
protected:
    GeneralAppInfo app_ = GeneralApp(Dynamic());
};

TEST_F(DynamicParameters, AllTogether) {
    EXPECT_TRUE(app_.UpdateDynamicPara(
        {"-v", "x"}, {{0, {"/opt/player"}}, {1, {"007", "ignored"}}, {2, {"LEVEL=12"}}}));
    EXPECT_EQ(app_.arguments_, (Values{"-v", "x"}));
    EXPECT_EQ(app_.execPath_, "/opt/player");
    EXPECT_EQ(app_.vfId_, 7);
    EXPECT_EQ(app_.envs_, (std::map<std::string, std::string>{{"FIXED", "1"}, {"LEVEL", "12"}}));
    EXPECT_TRUE(LogCapture::Contains(
        LOG_INFO, "PROCMGR : UpdateEnv dynamic appName=svc, env=FIXED=1 LEVEL=12"));
    // The values of the next request replace these.
    EXPECT_TRUE(app_.UpdateDynamicPara({}, {{0, {"/opt/other"}}}));
    EXPECT_EQ(app_.arguments_, Values());
    EXPECT_EQ(app_.vfId_, -1);
    EXPECT_EQ(app_.envs_, (std::map<std::string, std::string>{{"FIXED", "1"}}));
}

TEST_F(DynamicParameters, AManifestWithoutPatternsIsNotChanged) {
    ManifestData data = Dynamic();
    data.dynamic = false;
    GeneralAppInfo fixed = GeneralApp(data);
    EXPECT_TRUE(fixed.UpdateDynamicPara({"-v"}, {{0, {"/opt/a", "/opt/b"}}}));
    EXPECT_EQ(fixed.execPath_, data.bin);
    EXPECT_EQ(fixed.arguments_, data.args);
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(DynamicParameters, Refusals) {
    const std::string path = "PROCMGR : dynamic execPath ";
    const std::string env = "PROCMGR : dynamic env ";
    const struct {
        bool (AppSpec::*update)(const Values&);
        Values values;
        std::string line;
    } cases[] = {
        {&AppSpec::UpdateExecvPath, {}, path + "vector size invalid, 0"},
        {&AppSpec::UpdateExecvPath, {""}, path + "invalid, is empty"},
        {&AppSpec::UpdateExecvPath,
         {"/opt/a/b"},
         path + "invalid, pattern=match(/opt/[a-z]+), execPath=/opt/a/b"},
        {&AppSpec::UpdateVfId,
         {"x"},
         "PROCMGR : dynamic vfid invalid, pattern=match([0-9a]*), vfid=x"},
        {&AppSpec::UpdateEnv, {"=x"}, env + "invalid, =x"},
        {&AppSpec::UpdateEnv, {"FIXED=2"}, env + "value invalid, key=FIXED, pattern=1, env=2"},
        {&AppSpec::UpdateEnv,
         {"LEVEL=123"},
         env + "value invalid, key=LEVEL, pattern=match([0-9]{1,2}), env=123"},
    };
    for (const auto& [update, values, line] : cases) {
        EXPECT_FALSE((app_.*update)(values)) << line;
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
    }
    EXPECT_TRUE(app_.UpdateEnv({"UNKNOWN=1"}));
    EXPECT_TRUE(LogCapture::Contains(LOG_WARNING, env + "key not in yaml cfg, UNKNOWN, ignore it"));
    for (const auto& [text, vfId] : std::map<std::string, int>{
             {"", 0}, {"7a", -1}, {"2147483647", 2147483647}, {"2147483648", -1}}) {
        EXPECT_TRUE(app_.UpdateVfId({text}));
        EXPECT_EQ(app_.vfId_, vfId) << text;
    }
}

}  // namespace
}  // namespace ProcMgr::App
