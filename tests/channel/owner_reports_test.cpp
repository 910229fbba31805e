#include "channel/owner_reports.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "channel/owner_pipes.h"
#include "platform/host/manifest_data.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using Fakes::FakeMuxa;
using Fakes::LogCapture;
using Call = FakeMuxa::Call;
using Message::AppStateInfo;
using Message::RequestMsg;

class OwnerReportsTest : public testing::Test {
protected:
    void SetUp() override {
        FakeMuxa::Get().Reset();
        setenv("PROC_NAME", "PROCMGR", 1);
        for (const char* owner : {"zornmgr", "owner"}) {
            ASSERT_TRUE(pipes_.RegServiceCallBack(owner, 0));
        }
        LogCapture::Clear();
    }
    void TearDown() override { FakeMuxa::Get().Reset(); }

    // Type and payload of each delivered record.
    static std::vector<std::pair<uint32_t, std::string>> Delivered() {
        std::vector<std::pair<uint32_t, std::string>> records;
        for (const auto& sent : FakeMuxa::Get().Delivered()) {
            RequestMsg record;
            EXPECT_EQ(sent.data.size(), sizeof record);
            std::memcpy(&record, sent.data.data(), std::min(sent.data.size(), sizeof record));
            records.emplace_back(record.type, std::string(reinterpret_cast<char*>(record.data),
                                                          std::min<size_t>(record.size, 3964)));
        }
        return records;
    }

    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}};
    OwnerReports reports_{pipes_};
};

TEST_F(OwnerReportsTest, ReportsEveryItem) {
    EXPECT_TRUE(reports_.ReportAppState(
        {{"app_b", 12, 100, RUNNING_NORMAL_START, 0}, {"app", 4, 0, TERMINATED_ABNORMAL_EXIT, 1}},
        "owner"));
    const auto sends = FakeMuxa::Get().Sends();
    ASSERT_EQ(sends.size(), 1U);
    EXPECT_EQ(sends[0].fd, pipes_.GetServiceFd("owner"));
    EXPECT_EQ(Delivered()[0], (std::pair<uint32_t, std::string>{
                                  Message::APP_STATE_REPORT, "2#app#4#0#4#1#app_b#12#100#0#0#"}));
    EXPECT_TRUE(LogCapture::ContainsPart(
        LOG_INFO,
        " PM report appState to owner, appState=RUNNING_NORMAL_START, appName=app_b, pid=12"));
    EXPECT_TRUE(LogCapture::ContainsPart(
        LOG_INFO,
        " PM report appState to owner, appState=TERMINATED_ABNORMAL_EXIT, appName=app, pid=4"));
}

TEST_F(OwnerReportsTest, FillsRecordsShorterItemsFirst) {
    // Two pieces of 4000 bytes together: the numbers and separators of each take 13 of them.
    const std::string longName(2001 - 13, 'l');
    const std::string shortName(1999 - 13, 's');
    EXPECT_TRUE(reports_.ReportAppState({{longName, 12, 3456, 0, 0}, {shortName, 12, 3456, 0, 0}},
                                        "owner"));
    ASSERT_EQ(Delivered().size(), 2U);
    EXPECT_TRUE(Delivered()[0].second.starts_with("1#s"));
    EXPECT_TRUE(Delivered()[1].second.starts_with("1#l"));
}

TEST_F(OwnerReportsTest, EveryFailureIsNamed) {
    const AppStateInfo item{"app", 1, 2, 0, 0};
    const std::string fd = std::to_string(pipes_.GetServiceFd("owner"));
    const std::string failed = "PROCMGR : Master ReportAppState failed: ";
    const AppStateInfo tooLong{std::string(3960, 'x'), 1, 2, 0, 0};
    const struct {
        AppStateInfo info;
        std::string owner;
        std::string line;
    } cases[] = {
        {item, "nobody", failed + "invalid fd, owner=nobody"},
        {tooLong, "owner", failed + "PackAppStateRequest failed, owner=owner"},
        {item, "owner", "PROCMGR : Master SendRequestMsg failed, err code=-32, fd=" + fd},
        {item, "owner", failed + "SendRequestMsg owner failed, fd:" + fd},
    };
    FakeMuxa::Get().SetDefault(Call::SEND, -32);
    for (const auto& [info, owner, line] : cases) {
        LogCapture::Clear();
        EXPECT_FALSE(reports_.ReportAppState({info}, owner));
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
        EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "PM report appState"));
    }
    EXPECT_TRUE(reports_.ReportAppState({}, "nobody")) << "nothing to report";
    EXPECT_TRUE(FakeMuxa::Get().Delivered().empty());
}

TEST_F(OwnerReportsTest, APeerThatDoesNotReadIsWaitedForOnce) {
    const std::vector<RequestMsg> record(1);
    FakeMuxa::Get().SetDefault(Call::SEND, -11);
    EXPECT_FALSE(reports_.SendRequestMsg(7, record));
    const size_t patient = FakeMuxa::Get().Count(Call::SEND);
    EXPECT_FALSE(reports_.SendRequestMsg(7, record));
    EXPECT_EQ(FakeMuxa::Get().Count(Call::SEND), patient + 1) << "it holds up nobody any more";
    FakeMuxa::Get().Push(Call::SEND, 0);
    EXPECT_TRUE(reports_.SendRequestMsg(7, record));
    FakeMuxa::Get().Push(Call::SEND, -11);
    FakeMuxa::Get().Push(Call::SEND, 0);
    EXPECT_TRUE(reports_.SendRequestMsg(7, record)) << "one that reads again is waited for again";
}

TEST_F(OwnerReportsTest, RecordsBeforeAFailureStaySent) {
    FakeMuxa::Get().Push(Call::SEND, 0);
    FakeMuxa::Get().Push(Call::SEND, -104);
    EXPECT_FALSE(reports_.SendRequestMsg(7, std::vector<RequestMsg>(3)));
    EXPECT_EQ(FakeMuxa::Get().Count(Call::SEND), 2U);
    EXPECT_EQ(FakeMuxa::Get().Delivered().size(), 1U);
}

TEST_F(OwnerReportsTest, TheAccessManagerHearsOfAllButItself) {
    ManifestData data;
    data.name = "svc";
    data.bin = "/bin/true";
    data.gid = 33;
    App::BaseAppInfo app(ApplicationManifest(std::make_shared<const ManifestData>(data)));
    app.pid_ = 77;
    reports_.ReportAppStateToZorn(app, TERMINATED_ABNORMAL_EXIT, 1);
    ASSERT_EQ(Delivered().size(), 1U);
    EXPECT_EQ(Delivered()[0].second, "1#svc#77#33#4#1#");
    EXPECT_EQ(FakeMuxa::Get().Sends()[0].fd, pipes_.GetServiceFd("zornmgr"));
    EXPECT_TRUE(
        LogCapture::Contains(LOG_INFO, "PROCMGR : report svc's state: 4 to zornmgr successfully"));

    pipes_.UnRegServiceCallBack("zornmgr");
    reports_.ReportAppStateToZorn(app, RUNNING_NORMAL_START, 0);
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR : report svc's state: 0 to zornmgr failed"));

    ASSERT_TRUE(pipes_.RegServiceCallBack("zornmgr", 0));
    LogCapture::Clear();
    app.appName_ = "zornmgr";
    reports_.ReportAppStateToZorn(app, RUNNING_NORMAL_START, 0);
    EXPECT_EQ(Delivered().size(), 1U);
    EXPECT_TRUE(LogCapture::Lines().empty());
}

}  // namespace
}  // namespace ProcMgr
