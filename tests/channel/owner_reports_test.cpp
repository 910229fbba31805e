#include "channel/owner_reports.h"

#include <gmock/gmock.h>

#include <thread>

#include "app/base_app_info.h"
#include "channel/owner_pipes.h"
#include "message/record_codec.h"
#include "platform/host/manifest_data.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/wait.h"

namespace ProcMgr {
namespace {

using Fakes::FakeMuxa;
using Fakes::LogCapture;
using Call = FakeMuxa::Call;
using Tests::WaitUntil;
using Records = std::vector<std::string>;

class OwnerReportsTest : public testing::Test, public PictureSource {
protected:
    void SetUp() override {
        FakeMuxa::Get().Reset();
        setenv("PROC_NAME", "PROCMGR", 1);
        for (const char* owner : {"zornmgr", "owner"}) {
            ASSERT_TRUE(pipes_.RegServiceCallBack(owner, 0, 0));
        }
        LogCapture::Clear();
    }
    void TearDown() override {
        sender_.Stop();
        if (thread_.joinable()) {
            thread_.join();
        }
        FakeMuxa::Get().Reset();
    }

    std::optional<std::vector<Message::AppStateInfo>> GetPicture(const std::string&) override {
        return present_;
    }
    void StartReportThread() {
        thread_ = std::thread([this] { sender_.Run(pipes_); });
    }
    // Reports more states to "owner" than its queue holds.
    void Overflow() {
        for (int i = 0; i < 3000; ++i) {
            reports_.ReportAppState({{"gone", 1, 0, 0, 0}, {"here", 6, 0, 0, 0}}, "owner");
        }
    }

    // The delivered records as "TYPE:PAYLOAD".
    static Records Delivered() {
        Records records;
        for (const auto& sent : FakeMuxa::Get().Delivered()) {
            const auto record = Message::DecodeRecord(sent.data).value();
            records.push_back(std::to_string(record.type) + ':' +
                              std::string(Message::PayloadOf(record)));
        }
        return records;
    }

    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}};
    std::vector<Message::AppStateInfo> present_;
    ReportSender sender_{pipes_, this};
    OwnerReports reports_{pipes_, sender_};
    std::thread thread_;
};

TEST_F(OwnerReportsTest, EveryFailureIsLogged) {
    const std::string fd = std::to_string(pipes_.GetServiceFd("owner"));
    const std::string failed = "PROCMGR : Master ReportAppState failed: ";
    FakeMuxa::Get().SetDefault(Call::SEND, -32);
    EXPECT_TRUE(reports_.ReportAppState({}, "nobody")) << "nothing to report";
    EXPECT_FALSE(reports_.ReportAppState({{"app", 1, 2, 0, 0}}, "nobody"));
    EXPECT_FALSE(reports_.ReportAppState({{std::string(3960, 'x'), 1, 2, 0, 0}}, "owner"));
    EXPECT_TRUE(reports_.ReportAppState({{"app", 1, 2, 0, 0}}, "owner")) << "queued";
    sender_.Flush();
    for (const std::string& line :
         {failed + "invalid fd, owner=nobody", failed + "PackAppStateRequest failed, owner=owner",
          "PROCMGR : Master SendRequestMsg failed, err code=-32, fd=" + fd,
          failed + "SendRequestMsg owner failed, fd:" + fd}) {
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
    }
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "PM report appState"));
}

TEST_F(OwnerReportsTest, AnOwnerThatHasMissedReportsGetsAllStates) {
    StartReportThread();
    present_ = {{"here", 7, 0, 0, 0}};
    FakeMuxa::Get().SetDefault(Call::SEND, -11);
    Overflow();
    reports_.ReportAppState({{"ended", 1, 0, 4, 0}}, "owner");
    Overflow();
    sender_.Flush();
    EXPECT_TRUE(
        LogCapture::ContainsPart(LOG_ERR, "PROCMGR : owner=owner does not take its reports"));
    // More reports are missed while the picture is being sent.
    ASSERT_TRUE(WaitUntil([] { return FakeMuxa::Get().Count(Call::SEND) >= 2; }));
    reports_.ReportAppState({{"late", 1, 0, 4, 0}}, "owner");
    Overflow();
    FakeMuxa::Get().SetDefault(Call::SEND, 0);
    std::string all;
    EXPECT_TRUE(WaitUntil([&] {
        all = testing::PrintToString(Delivered());
        return all.find("here#7#0#0#0#") != std::string::npos &&
               all.find("ended#1#0#4#0#") != std::string::npos &&
               all.find("late#1#0#4#0#") != std::string::npos;
    })) << all.substr(0, 500);
}

TEST_F(OwnerReportsTest, AReportThatFailsForGoodIsPartOfThePicture) {
    StartReportThread();
    FakeMuxa::Get().Push(Call::SEND, -11, 401);
    reports_.ReportAppState({{"gone", 1, 0, 4, 0}}, "owner");
    sender_.Flush();
    reports_.ReportAppState({{"next", 2, 0, 0, 0}}, "owner");
    reports_.ReportAppDetailStatus({{"c", 1}}, "owner");
    sender_.Flush();
    ASSERT_TRUE(WaitUntil([] { return Delivered().size() >= 3; }));
    EXPECT_TRUE(LogCapture::ContainsPart(LOG_ERR, "SendRequestMsg failed, err code=-11"));
    EXPECT_THAT(Delivered(), testing::ElementsAre("4:1#next#2#0#0#0#", testing::StartsWith("10:"),
                                                  "4:1#gone#1#0#4#0#"));
}

TEST_F(OwnerReportsTest, AReportWithoutAPipeIsSentWhenThePipeIsOpenAgain) {
    pipes_.UnRegServiceCallBack("owner");
    EXPECT_FALSE(reports_.ReportAppState({{"app", 1, 0, 4, 0}}, "owner"));
    sender_.Flush();
    EXPECT_TRUE(Delivered().empty());
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0, 0));
    sender_.Retry("owner");
    EXPECT_EQ(Delivered(), Records{"4:1#app#1#0#4#0#"});
}

TEST_F(OwnerReportsTest, TheAccessManagerGetsTheStatesOfAllOtherServices) {
    ManifestData data;
    data.name = "svc";
    data.gid = 33;
    App::BaseAppInfo app(ApplicationManifest(std::make_shared<const ManifestData>(data)));
    app.pid_ = 77;
    reports_.ReportAppStateToZorn(app, TERMINATED_ABNORMAL_EXIT, 1);
    sender_.Flush();
    EXPECT_EQ(Delivered(), Records{"4:1#svc#77#33#4#1#"});
    EXPECT_EQ(FakeMuxa::Get().Sends()[0].fd, pipes_.GetServiceFd("zornmgr"));
    EXPECT_TRUE(
        LogCapture::Contains(LOG_INFO, "PROCMGR : report svc's state: 4 to zornmgr successfully"));
    pipes_.UnRegServiceCallBack("zornmgr");
    reports_.ReportAppStateToZorn(app, RUNNING_NORMAL_START, 0);
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR : report svc's state: 0 to zornmgr failed"));
    app.appName_ = "zornmgr";
    reports_.ReportAppStateToZorn(app, RUNNING_NORMAL_START, 0);
    EXPECT_EQ(LogCapture::Count(LOG_ERR, "PROCMGR : report zornmgr's state: 0 to zornmgr failed"),
              0U);
}

}  // namespace
}  // namespace ProcMgr
