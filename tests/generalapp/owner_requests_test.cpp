#include "generalapp/owner_requests.h"

#include "app/managed_records.h"
#include "baseservice/readiness.h"
#include "generalapp/general_apps.h"
#include "resource/delay_core_affinity.h"
#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

// The handlers over the parts that the daemon gives them, none of which starts a process here.
class OwnerRequestsTest : public BaseFixture {
protected:
    StartupConfig config_;
    GeneralApps apps_{launcher_, checks_, reports_, faults_, config_, services_};
    App::ManagedRecords records_{{}, [](const std::string&) { return false; }};
    CoreAffinityMgr& affinity_ = CoreAffinityMgr::GetInstance();
    DelayCoreAffinity delayed_{CgroupMgr::GetInstance(), affinity_, BindCount::GetInstance(),
                               records_};
    Readiness readiness_{services_, reports_, sender_, apps_};
    OwnerRequests requests_{{apps_, config_, readiness_, reports_, delayed_, affinity_}};
};

TEST_F(OwnerRequestsTest, ALoadAndAReloadAreLoggedUnderTheirOwnNames) {
    requests_.LoadStartupCfg({{}, "/no/such"}, "owner", 7);
    requests_.ReloadStartupCfg({{}, "/no/such"}, "owner", 8);
    const std::vector<std::string> lines = MaskedLines();
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
    ASSERT_TRUE(pipes_.RegServiceCallBack("zornmgr", 0, 0));
    const Message::AppExecInfo ended{.appName = "app", .pid = 77, .gid = 33, .state = 1};
    requests_.ReportAppExecution(ended, "other");
    EXPECT_EQ(MaskedLines().back(), "3 PROCMGR : APP_EXECUTION_REPORT of owner=other is refused");
    EXPECT_THAT(FakeMuxa::Get().Delivered(), IsEmpty());
    requests_.ReportAppExecution(ended, "vintor");
    EXPECT_EQ(FakeMuxa::Get().Delivered().size(), 1U);
    EXPECT_TRUE(LogCapture::ContainsPart(
        LOG_INFO, "PM report appState to zornmgr, appState=TERMINATED_NORMAL_EXIT, appName=app"));
}

}  // namespace
}  // namespace ProcMgr
