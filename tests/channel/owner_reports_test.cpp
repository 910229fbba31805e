#include "channel/owner_reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/base_app_info.h"
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
            ASSERT_TRUE(pipes_.RegServiceCallBack(owner, 0, 0));
        }
        LogCapture::Clear();
    }
    void TearDown() override { FakeMuxa::Get().Reset(); }

    static bool WaitUntil(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return condition();
    }
    static bool WaitForRecords(size_t count) {
        return WaitUntil([=] { return Delivered().size() >= count; });
    }

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
    std::vector<Message::AppStateInfo> present_;
    ReportSender sender_{pipes_, [this](const std::string&) { return std::optional(present_); }};
    OwnerReports reports_{pipes_, sender_};
};

TEST_F(OwnerReportsTest, EveryFailureIsNamed) {
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

// The report thread, for the time of a test.
class ReportThread {
public:
    ReportThread(ReportSender& sender, OwnerPipes& pipes)
        : sender_(sender), thread_([&] { sender.Run(pipes); }) {}
    ~ReportThread() {
        sender_.Stop();
        thread_.join();
    }

private:
    ReportSender& sender_;
    std::thread thread_;
};

TEST_F(OwnerReportsTest, WhatAPipeDoesNotTakeIsSentInOrderLater) {
    const ReportThread thread(sender_, pipes_);
    FakeMuxa::Get().Push(Call::SEND, -11, 20);
    reports_.ReportAppState({{"a", 1, 0, 0, 0}}, "owner");
    sender_.Flush();
    reports_.ReportAppState({{"b", 2, 0, 4, 0}}, "owner");
    reports_.ReportAppDetailStatus({{"c", 1}}, "owner");
    sender_.Flush();
    ASSERT_TRUE(WaitForRecords(3));
    EXPECT_THAT(Delivered(), testing::ElementsAre("4:1#a#1#0#0#0#", "4:1#b#2#0#4#0#",
                                                  testing::StartsWith("10:")));
}

TEST_F(OwnerReportsTest, AnOwnerThatHasMissedSomethingIsToldAllStates) {
    const ReportThread thread(sender_, pipes_);
    present_ = {{"here", 7, 0, 0, 0}};
    FakeMuxa::Get().SetDefault(Call::SEND, -11);
    // More than a queue holds; the last states of "gone" and "here" are among what is dropped.
    for (int i = 0; i < 3000; ++i) {
        reports_.ReportAppState({{"gone", 1, 0, 0, 0}, {"here", 6, 0, 0, 0}}, "owner");
    }
    reports_.ReportAppState({{"gone", 1, 0, 4, 0}}, "owner");
    for (int i = 0; i < 3000; ++i) {
        reports_.ReportAppState({{"x", 1, 0, 0, 0}, {"y", 1, 0, 0, 0}}, "owner");
    }
    sender_.Flush();
    EXPECT_TRUE(
        LogCapture::ContainsPart(LOG_ERR, "PROCMGR : owner=owner does not take its reports"));
    // The picture's turn comes, and then more is missed.
    ASSERT_TRUE(WaitUntil([] { return FakeMuxa::Get().Count(Call::SEND) >= 2; }));
    reports_.ReportAppState({{"late", 1, 0, 4, 0}}, "owner");
    for (int i = 0; i < 3000; ++i) {
        reports_.ReportAppState({{"x", 1, 0, 0, 0}, {"y", 1, 0, 0, 0}}, "owner");
    }
    FakeMuxa::Get().SetDefault(Call::SEND, 0);
    ASSERT_TRUE(WaitForRecords(1));
    // The first record goes out alone, the picture follows.
    std::string all;
    EXPECT_TRUE(WaitUntil([&] {
        all.clear();
        for (const std::string& record : Delivered()) {
            all += record;
        }
        return all.find("here#7#0#0#0#") != std::string::npos &&
               all.find("gone#1#0#4#0#") != std::string::npos &&
               all.find("late#1#0#4#0#") != std::string::npos;
    })) << all.substr(0, 500);
}

TEST_F(OwnerReportsTest, AReportThatFailsForGoodIsMadeUpForByThePicture) {
    const ReportThread thread(sender_, pipes_);
    FakeMuxa::Get().Push(Call::SEND, -11, 401);
    reports_.ReportAppState({{"gone", 1, 0, 4, 0}}, "owner");
    sender_.Flush();
    reports_.ReportAppState({{"next", 2, 0, 0, 0}}, "owner");
    sender_.Flush();
    ASSERT_TRUE(WaitForRecords(2));
    EXPECT_TRUE(LogCapture::ContainsPart(LOG_ERR, "SendRequestMsg failed, err code=-11"));
    EXPECT_EQ(Delivered(), (std::vector<std::string>{"4:1#next#2#0#0#0#", "4:1#gone#1#0#4#0#"}));
}

TEST_F(OwnerReportsTest, AnOwnerWhosePipeWasClosedIsToldWhenItIsOpenAgain) {
    pipes_.UnRegServiceCallBack("owner");
    EXPECT_FALSE(reports_.ReportAppState({{"app", 1, 0, 4, 0}}, "owner"));
    sender_.Flush();
    EXPECT_TRUE(Delivered().empty());
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0, 0));
    sender_.Retry("owner");
    EXPECT_EQ(Delivered(), std::vector<std::string>{"4:1#app#1#0#4#0#"});
}

TEST_F(OwnerReportsTest, TheAccessManagerHearsOfAllButItself) {
    ManifestData data;
    data.name = "svc";
    data.gid = 33;
    App::BaseAppInfo app(ApplicationManifest(std::make_shared<const ManifestData>(data)));
    app.pid_ = 77;
    reports_.ReportAppStateToZorn(app, TERMINATED_ABNORMAL_EXIT, 1);
    sender_.Flush();
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
