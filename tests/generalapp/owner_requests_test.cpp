#include "generalapp/owner_requests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/managed_records.h"
#include "baseservice/base_services.h"
#include "baseservice/readiness.h"
#include "channel/owner_pipes.h"
#include "channel/owner_reports.h"
#include "generalapp/general_apps.h"
#include "resource/bind_count.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/delay_core_affinity.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/files.h"
#include "tests/support/log_mask.h"

namespace ProcMgr {
namespace {

using Fakes::LogCapture;
using testing::Contains;
using testing::ElementsAre;

// The handlers over the parts that the daemon gives them, none of which starts a process here.
class OwnerRequestsTest : public testing::Test {
protected:
    void SetUp() override {
        Fakes::FakeMuxa::Get().Reset();
        setenv("PROC_NAME", "PROCMGR", 1);
        ASSERT_TRUE(pipes_.RegServiceCallBack("zornmgr", 0, 0));
        LogCapture::Clear();
    }
    void TearDown() override { Fakes::FakeMuxa::Get().Reset(); }

    static std::vector<std::string> Lines() {
        std::vector<std::string> texts;
        for (const auto& [level, text] : LogCapture::Lines()) {
            texts.push_back(std::to_string(level) + " " + MaskLog(text));
        }
        LogCapture::Clear();
        return texts;
    }

    CgroupMgr& cgroups_ = CgroupMgr::GetInstance();
    CoreAffinityMgr& affinity_ = CoreAffinityMgr::GetInstance();
    App::ProcessLauncher launcher_{cgroups_, affinity_, BindCount::GetInstance()};
    ReportedState reportedState_;
    CheckRequests checks_;
    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}};
    ReportSender sender_{pipes_, nullptr};
    OwnerReports reports_{pipes_, sender_};
    BaseServices baseServices_{launcher_, reportedState_, checks_, pipes_, reports_};
    StartupConfig config_;
    GeneralApps apps_{launcher_,
                      checks_,
                      reports_,
                      config_,
                      {.isZornReady = [] { return true; },
                       .getOwners = [] { return std::vector<std::string>{"zornmgr"}; }}};
    App::ManagedRecords records_{{}, [](const std::string&) { return false; }};
    DelayCoreAffinity delayed_{cgroups_, affinity_, BindCount::GetInstance(), records_};
    Readiness readiness_{baseServices_, reports_, sender_, apps_};
    OwnerRequests requests_{{apps_, config_, readiness_, reports_, delayed_, affinity_}};
};

TEST_F(OwnerRequestsTest, AReloadForgetsWhatALoadKeeps) {
    const Tests::TempDirectory directory;
    const std::string path = directory / "apps.yaml";
    const auto write = [&](const std::string& name) {
        Tests::WriteFile(path, "applications:\n  - {name: " + name + ", bin: /bin/true}\n");
    };
    write("one");
    requests_.LoadStartupCfg({{}, path}, "owner", 5);
    write("two");
    requests_.LoadStartupCfg({{}, path}, "owner", 5);
    EXPECT_TRUE(config_.Find("one").has_value());
    LogCapture::Clear();
    requests_.ReloadStartupCfg({{}, path}, "owner", 6);
    EXPECT_FALSE(config_.Find("one").has_value());
    EXPECT_TRUE(config_.Find("two").has_value());
    EXPECT_THAT(Lines(), ElementsAre("6 STAMP PM receive RELOAD_STARTUP_CFG msg load file=" + path,
                                     "6 STAMP ReLoadStartCfgInfo finish ret=0x0, fd=6"));
    requests_.LoadStartupCfg({{}, "/no/such"}, "owner", 7);
    const std::vector<std::string> lines = Lines();
    EXPECT_THAT(lines, Contains("6 STAMP PM receive LOAD_STARTUP_CFG msg load file=/no/such"));
    EXPECT_THAT(lines, Contains("3 LoadStartCfgInfo failed, path=/no/such"));
    EXPECT_THAT(lines, Contains("6 STAMP LoadStartCfgInfo finish ret=0xF10405, fd=7"));
}

TEST_F(OwnerRequestsTest, OnlyVintorReportsTheExecutionOfApplications) {
    const Message::AppExecInfo ended{.appName = "app", .pid = 77, .gid = 33, .state = 1};
    requests_.ReportAppExecution(ended, "other");
    EXPECT_THAT(Lines(),
                ElementsAre("3 PROCMGR : APP_EXECUTION_REPORT of owner=other is not taken"));
    EXPECT_TRUE(Fakes::FakeMuxa::Get().Delivered().empty());
    requests_.ReportAppExecution(ended, "vintor");
    EXPECT_EQ(Fakes::FakeMuxa::Get().Delivered().size(), 1U);
    EXPECT_TRUE(LogCapture::ContainsPart(
        LOG_INFO, "PM report appState to zornmgr, appState=TERMINATED_NORMAL_EXIT, appName=app"));
}

}  // namespace
}  // namespace ProcMgr
