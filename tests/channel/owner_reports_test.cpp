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

    // Type and payload of each delivered record, as "type:payload".
    static std::vector<std::string> Delivered() {
        std::vector<std::string> records;
        for (const auto& sent : FakeMuxa::Get().Delivered()) {
            RequestMsg record;
            EXPECT_EQ(sent.data.size(), sizeof record);
            std::memcpy(&record, sent.data.data(), std::min(sent.data.size(), sizeof record));
            records.push_back(std::to_string(record.type) + ':' +
                              std::string(reinterpret_cast<char*>(record.data),
                                          std::min<size_t>(record.size, 3964)));
        }
        return records;
    }

    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}};
    OwnerReports reports_{pipes_};
};

TEST_F(OwnerReportsTest, EveryFailureIsNamed) {
    const std::string fd = std::to_string(pipes_.GetServiceFd("owner"));
    const std::string failed = "PROCMGR : Master ReportAppState failed: ";
    FakeMuxa::Get().SetDefault(Call::SEND, -32);
    EXPECT_TRUE(reports_.ReportAppState({}, "nobody")) << "nothing to report";
    EXPECT_FALSE(reports_.ReportAppState({{"app", 1, 2, 0, 0}}, "nobody"));
    EXPECT_FALSE(reports_.ReportAppState({{std::string(3960, 'x'), 1, 2, 0, 0}}, "owner"));
    EXPECT_FALSE(reports_.ReportAppState({{"app", 1, 2, 0, 0}}, "owner"));
    for (const std::string& line :
         {failed + "invalid fd, owner=nobody", failed + "PackAppStateRequest failed, owner=owner",
          "PROCMGR : Master SendRequestMsg failed, err code=-32, fd=" + fd,
          failed + "SendRequestMsg owner failed, fd:" + fd}) {
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
    }
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "PM report appState"));
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

TEST_F(OwnerReportsTest, TheAccessManagerHearsOfAllButItself) {
    ManifestData data;
    data.name = "svc";
    data.gid = 33;
    App::BaseAppInfo app(ApplicationManifest(std::make_shared<const ManifestData>(data)));
    app.pid_ = 77;
    reports_.ReportAppStateToZorn(app, TERMINATED_ABNORMAL_EXIT, 1);
    EXPECT_EQ(Delivered(), std::vector<std::string>{"4:1#svc#77#33#4#1#"});
    EXPECT_EQ(FakeMuxa::Get().Sends()[0].fd, pipes_.GetServiceFd("zornmgr"));
    EXPECT_TRUE(
        LogCapture::Contains(LOG_INFO, "PROCMGR : report svc's state: 4 to zornmgr successfully"));
    app.appName_ = "zornmgr";
    reports_.ReportAppStateToZorn(app, RUNNING_NORMAL_START, 0);
    EXPECT_EQ(Delivered().size(), 1U);

    pipes_.UnRegServiceCallBack("zornmgr");
    app.appName_ = "svc";
    reports_.ReportAppStateToZorn(app, RUNNING_NORMAL_START, 0);
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR : report svc's state: 0 to zornmgr failed"));
}

}  // namespace
}  // namespace ProcMgr
