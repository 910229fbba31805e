// What a record takes over from its manifest and from the values of a request.
#include <map>

#include "tests/app/app_test_support.h"

namespace ProcMgr::App {
namespace {

TEST(Records, RealTimeSettings) {
    constexpr auto NONE = SchedPolicyType::NOT_SET;
    const struct {
        std::string priority;
        std::string type;
        SchedPolicyType policy;
        int32_t value;
        bool isEnabled;
        std::string log;  // after the application's name; empty: none
    } cases[] = {
        {"", "SCHED_FIFO", NONE, -1, false, ""},
        {"true", "SCHED_FIFO", NONE, -1, true, ""},
        {"05", "SCHED_FIFO", SchedPolicyType::FIFO, 5, true, "rtPrio=5, rtPolicy=SCHED_FIFO"},
        {"99", "SCHED_RR", SchedPolicyType::ROUND_ROBIN, 99, true, "rtPrio=99, rtPolicy=SCHED_RR"},
        {"0", "SCHED_FIFO", NONE, -1, false, ""},
        {"100", "SCHED_FIFO", NONE, -1, false, ""},
        {"99999999999", "SCHED_FIFO", NONE, -1, false, ""},
        {"-5", "SCHED_FIFO", NONE, -1, false, "set_rt_prio has invalid char=-5"},
        {"5", "SCHED_OTHER", NONE, -1, false, ""},
    };
    for (const auto& [priority, type, policy, value, isEnabled, log] : cases) {
        ManifestData data = SomeService();
        data.setRtPrio = priority;
        data.setRtType = type;
        LogCapture::Clear();
        const BaseAppInfo app(Manifest(data));
        EXPECT_EQ(app.rtEnable_, isEnabled) << priority;
        EXPECT_EQ(app.schedPolicy_, policy) << priority << type;
        EXPECT_EQ(app.rtPriority_, value) << priority << type;
        const LogLine line{LOG_INFO, "PROCMGR : svc, " + log};
        EXPECT_EQ(LogCapture::Lines(), Lines(log.empty() ? 0 : 1, line));
    }
}

TEST(Records, TheCoreAffinityMarkerIsARealTimeSetting) {
    ManifestData data = SomeService();
    data.coreAffinity = {1, 255};
    data.delayCoreAffinity = true;
    data.setRtPrio = "7";
    data.setRtType = "SCHED_RR";
    const GeneralAppInfo unmarked = GeneralApp(data);
    EXPECT_EQ(unmarked.coreAffinity_, data.coreAffinity);
    EXPECT_EQ(unmarked.schedPolicy_, SchedPolicyType::ROUND_ROBIN);
    EXPECT_TRUE(unmarked.isDelayCoreAffinity_);
    data.coreAffinity = {255, 1};
    const GeneralAppInfo marked = GeneralApp(data);
    EXPECT_TRUE(marked.coreAffinity_.empty());
    EXPECT_EQ(marked.schedPolicy_, SchedPolicyType::FIFO);
    EXPECT_EQ(marked.rtPriority_, 99);
    EXPECT_FALSE(marked.isDelayCoreAffinity_);
    EXPECT_EQ(LogCapture::Count(LOG_INFO, "PROCMGR : svc, update schedPolicy to SCHED_FIFO"), 1U);
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

    ManifestData data = Dynamic();
    data.dynamic = false;
    GeneralAppInfo fixed = GeneralApp(data);
    EXPECT_TRUE(fixed.UpdateDynamicPara({"-v"}, {{0, {"/opt/a", "/opt/b"}}}));
    EXPECT_EQ(fixed.execPath_, data.bin);
    EXPECT_EQ(fixed.arguments_, data.args);
}

TEST_F(DynamicParameters, Refusals) {
    constexpr auto PATH = &AppSpec::UpdateExecvPath;
    constexpr auto ENV = &AppSpec::UpdateEnv;
    const std::string path = "PROCMGR : dynamic execPath ";
    const std::string env = "PROCMGR : dynamic env ";
    const std::string vfId = "PROCMGR : dynamic vfid ";
    const std::tuple<bool (AppSpec::*)(const Values&), Values, std::string> cases[] = {
        {PATH, {}, path + "vector size invalid, 0"},
        {PATH, {""}, path + "invalid, is empty"},
        {PATH, {"/opt/a/b"}, path + "invalid, pattern=match(/opt/[a-z]+), execPath=/opt/a/b"},
        {&AppSpec::UpdateVfId, {"x"}, vfId + "invalid, pattern=match([0-9a]*), vfid=x"},
        {ENV, {"=x"}, env + "invalid, =x"},
        {ENV, {"FIXED=2"}, env + "value invalid, key=FIXED, pattern=1, env=2"},
        {ENV, {"LEVEL=123"}, env + "value invalid, key=LEVEL, pattern=match([0-9]{1,2}), env=123"},
    };
    for (const auto& [update, values, line] : cases) {
        EXPECT_FALSE((app_.*update)(values)) << line;
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
    }
    EXPECT_TRUE(app_.UpdateEnv({"UNKNOWN=1"}));
    EXPECT_TRUE(LogCapture::Contains(LOG_WARNING, env + "key not in yaml cfg, UNKNOWN, ignore it"));
    for (const auto& [text, id] : std::map<std::string, int>{
             {"", 0}, {"7a", -1}, {"2147483647", 2147483647}, {"2147483648", -1}}) {
        EXPECT_TRUE(app_.UpdateVfId({text}));
        EXPECT_EQ(app_.vfId_, id) << text;
    }
}

}  // namespace
}  // namespace ProcMgr::App
