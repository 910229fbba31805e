#include "baseservice/readiness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ReadinessTest : public BaseFixture, public HeldBackReports, public PictureSource {
protected:
    void ReportHeldBack() override { events_.emplace_back("held back"); }
    std::optional<std::vector<Message::AppStateInfo>> GetPicture(const std::string&) override {
        return std::vector<Message::AppStateInfo>{{"present", 7, 0, 0, 0}};
    }

    // The effect of one report of a service: the call of ReportHeldBack() and the names of the
    // applications that are reported to the access manager.
    std::vector<std::string> Handle(const std::string& owner, BaseServiceStateType state) {
        Fakes::LogCapture::Clear();
        events_.clear();
        readiness_.HandleBaseServiceState(owner, state);
        const auto sent = Between(
            "STAMP PM report appState to zornmgr, appState=RUNNING_NORMAL_START, appName=", ",");
        events_.insert(events_.end(), sent.begin(), sent.end());
        return events_;
    }

    std::vector<std::string> events_;
    ReportSender picturing_{pipes_, this};
    OwnerReports queued_{pipes_, picturing_};
    Readiness readiness_{services_, queued_, picturing_, *this};
};

TEST_F(ReadinessTest, TheAccessManagerGetsEverythingOnceForEachOfItsProcesses) {
    const auto running = BaseServiceStateType::RUNNING;
    const pid_t first = Start(Service("zornmgr", STAYS));
    EXPECT_THAT(Handle("zornmgr", running), ElementsAre("held back"))
        << "its first process has missed nothing";
    EXPECT_THAT(Handle("zornmgr", running), IsEmpty()) << "ready already";
    EXPECT_THAT(Handle("zornmgr", BaseServiceStateType::RESTARTING),
                ElementsAre("PROCMGR", "present"));

    kill(first, SIGKILL);
    ASSERT_TRUE(WaitUntil([&] {
        collector_.CollectExits();
        Check();
        return !services_.GetState("zornmgr");
    }));
    Start(Service("zornmgr", STAYS));
    EXPECT_THAT(Handle("zornmgr", running), ElementsAre("held back", "PROCMGR", "present"));
    EXPECT_THAT(Handle("zornmgr", BaseServiceStateType::INIT), ElementsAre("PROCMGR", "present"));
}

TEST_F(ReadinessTest, OnlyReadinessAndTheEndOfOtherServicesMatter) {
    Start(Service("other", STAYS));
    for (const auto state : {BaseServiceStateType::INIT, BaseServiceStateType::RESTARTING,
                             BaseServiceStateType::RUNNING, BaseServiceStateType::TERMINATING,
                             static_cast<BaseServiceStateType>(4)}) {
        EXPECT_THAT(Handle("other", state), IsEmpty());
        EXPECT_EQ(services_.IsReady("other"), state >= BaseServiceStateType::RUNNING);
    }
    EXPECT_EQ(services_.GetState("other"), TERMINATING);
}

}  // namespace
}  // namespace ProcMgr
