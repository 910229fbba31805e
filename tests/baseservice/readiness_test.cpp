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

    static std::vector<std::string> Sent() {
        const std::string begin = "STAMP PM report appState to zornmgr, appState=";
        return Between(begin + "RUNNING_NORMAL_START, appName=", ",");
    }
    // The effect of one report of a service: the call of ReportHeldBack() and the names of the
    // applications that are reported to the access manager.
    std::vector<std::string> Handle(const std::string& owner, BaseServiceStateType state) {
        events_.clear();
        const size_t before = Sent().size();
        readiness_.HandleBaseServiceState(owner, state);
        const auto sent = Sent();
        events_.insert(events_.end(), sent.begin() + static_cast<ptrdiff_t>(before), sent.end());
        return events_;
    }

    std::vector<std::string> events_;
    ReportSender picturing_{pipes_, this};
    OwnerReports queued_{pipes_, picturing_};
    Readiness readiness_{services_, queued_, picturing_, *this};
};

TEST_F(ReadinessTest, TheAccessManagerGetsEverythingOnceForEachOfItsProcesses) {
    const auto running = BaseServiceStateType::RUNNING;
    ManifestData zornmgr = Service("zornmgr", STAYS);
    zornmgr.reporting = true;
    const pid_t first = Start(zornmgr);
    EXPECT_THAT(Handle("zornmgr", running), ElementsAre("held back"))
        << "its first process has missed nothing";
    EXPECT_THAT(Handle("zornmgr", running), IsEmpty()) << "ready already";
    EXPECT_THAT(Handle("zornmgr", BaseServiceStateType::RESTARTING),
                ElementsAre("PROCMGR", "present"));

    kill(first, SIGKILL);
    StartReaper();
    ASSERT_TRUE(WaitUntil([&] {
        Check();
        return !services_.GetState("zornmgr");
    }));
    Start(zornmgr);
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
