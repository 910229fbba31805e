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
    App::SensorNodeEventReporter& faults_ = App::SensorNodeEventReporter::GetInstance();
    BaseServices baseServices_{launcher_, reportedState_, checks_, pipes_, reports_, faults_};
    StartupConfig config_;
    GeneralApps apps_{launcher_, checks_, reports_, faults_, config_, baseServices_};
    App::ManagedRecords records_{{}, [](const std::string&) { return false; }};
    DelayCoreAffinity delayed_{cgroups_, affinity_, BindCount::GetInstance(), records_};
    Readiness readiness_{baseServices_, reports_, sender_, apps_};
    OwnerRequests requests_{{apps_, config_, readiness_, reports_, delayed_, affinity_}};
};

TEST_F(OwnerRequestsTest, ALoadAndAReloadAreLoggedUnderTheirOwnNames) {
    requests_.LoadStartupCfg({{}, "/no/such"}, "owner", 7);
    requests_.ReloadStartupCfg({{}, "/no/such"}, "owner", 8);
    const std::vector<std::string> lines = Lines();
    for (const char* line : {"6 STAMP PM receive LOAD_STARTUP_CFG msg load file=/no/such",
                             "3 LoadStartCfgInfo failed, path=/no/such",
                             "6 STAMP LoadStartCfgInfo finish ret=0xF10405, fd=7",
                             "6 STAMP PM receive RELOAD_STARTUP_CFG msg load file=/no/such",
                             "3 ReLoadStartCfgInfo failed, path=/no/such",
                             "6 STAMP ReLoadStartCfgInfo finish ret=0xF10405, fd=8"}) {
        EXPECT_THAT(lines, Contains(line));
    }
}

TEST_F(OwnerRequestsTest, OnlyVintorReportsTheExecutionOfApplications) {
    const Message::AppExecInfo ended{.appName = "app", .pid = 77, .gid = 33, .state = 1};
    requests_.ReportAppExecution(ended, "other");
    EXPECT_THAT(Lines(), ElementsAre("3 PROCMGR : APP_EXECUTION_REPORT of owner=other is refused"));
    EXPECT_TRUE(Fakes::FakeMuxa::Get().Delivered().empty());
    requests_.ReportAppExecution(ended, "vintor");
    EXPECT_EQ(Fakes::FakeMuxa::Get().Delivered().size(), 1U);
    EXPECT_TRUE(LogCapture::ContainsPart(
        LOG_INFO, "PM report appState to zornmgr, appState=TERMINATED_NORMAL_EXIT, appName=app"));
}

}  // namespace
}  // namespace ProcMgr
