#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "app/general_app_info.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
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

class DynamicParameters : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }
    GeneralAppInfo app_{"app", Manifest(Dynamic()), "EM"};
};

TEST_F(DynamicParameters, AllTogether) {
    EXPECT_TRUE(app_.UpdateDynamicPara(
        {"-v", "x"}, {{0, {"/opt/player"}}, {1, {"007", "ignored"}}, {2, {"LEVEL=12"}}}));
    EXPECT_EQ(app_.arguments_, (Values{"-v", "x"}));
    EXPECT_EQ(app_.execPath_, "/opt/player");
    EXPECT_EQ(app_.vfId_, 7);
    EXPECT_EQ(app_.envs_, (std::map<std::string, std::string>{{"FIXED", "1"}, {"LEVEL", "12"}}));
    EXPECT_TRUE(LogCapture::Contains(
        LOG_INFO, "PROCMGR : UpdateEnv dynamic appName=app, env=FIXED=1 LEVEL=12"));
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "PROCMGR : UpdateVfId dynamic appName=app, vfId=7"));
    // The next request's values take the place of these.
    EXPECT_TRUE(app_.UpdateDynamicPara({}, {{0, {"/opt/other"}}}));
    EXPECT_TRUE(app_.arguments_.empty());
    EXPECT_EQ(app_.vfId_, -1);
    EXPECT_EQ(app_.envs_, (std::map<std::string, std::string>{{"FIXED", "1"}}));
}

TEST_F(DynamicParameters, WhatIsNotDynamicStaysAsItIs) {
    ManifestData data = Dynamic();
    data.dynamic = false;
    GeneralAppInfo fixed("app", Manifest(data), "EM");
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
