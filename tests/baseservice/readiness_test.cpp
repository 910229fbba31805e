#include "baseservice/readiness.h"

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

class ReadinessTest : public BaseFixture, public HeldBackReports, public PictureSource {
protected:
    void ReportHeldBack() override { events_.emplace_back("held back"); }
    std::optional<std::vector<Message::AppStateInfo>> GetPicture(const std::string&) override {
        return std::vector<Message::AppStateInfo>{{"present", 7, 0, 0, 0}};
    }

    // The effect of one report of a service: the call of ReportHeldBack() and the names of the
    // applications that are reported to the access manager.
    std::vector<std::string> Handle(const std::string& owner, BaseServiceStateType state) {
        events_.clear();
        LogCapture::Clear();
        readiness_.HandleBaseServiceState(owner, state);
        const std::string begin = "STAMP PM report appState to zornmgr, appState=";
        const auto sent = Between(begin + "RUNNING_NORMAL_START, appName=", ",");
        events_.insert(events_.end(), sent.begin(), sent.end());
        return events_;
    }

    std::vector<std::string> events_;
    ReportSender picturing_{pipes_, this};
    OwnerReports queued_{pipes_, picturing_};
    Readiness readiness_{services_, queued_, picturing_, *this};
};

TEST_F(ReadinessTest, TheAccessManagerGetsEverythingOnceForEachOfItsProcesses) {
    using State = BaseServiceStateType;
    const ManifestData zornmgr = Service("zornmgr", STAYS, "", {}, true);
    Start(zornmgr);
    EXPECT_THAT(Handle("zornmgr", State::RUNNING), ElementsAre("held back"))
        << "its first process has missed nothing";
    EXPECT_THAT(Handle("zornmgr", State::RUNNING), IsEmpty()) << "ready already";
    EXPECT_THAT(Handle("zornmgr", State::RESTARTING), ElementsAre("PROCMGR", "present"));

    StartReaper();
    KillAndWait("zornmgr");
    Check();
    EXPECT_EQ(services_.GetState("zornmgr"), std::nullopt);
    Start(zornmgr);
    EXPECT_THAT(Handle("zornmgr", State::RUNNING), ElementsAre("held back", "PROCMGR", "present"));
    EXPECT_THAT(Handle("zornmgr", State::INIT), ElementsAre("PROCMGR", "present"));
}

TEST_F(ReadinessTest, OnlyReadinessAndTheEndOfOtherServicesMatter) {
    Start(Service("other", STAYS));
    // 4 is no state.
    for (const int state : {0, 1, 2, 3, 4}) {
        EXPECT_THAT(Handle("other", static_cast<BaseServiceStateType>(state)), IsEmpty());
        EXPECT_EQ(services_.IsReady("other"), state >= 2);
    }
    EXPECT_EQ(services_.GetState("other"), TERMINATING);
}

}  // namespace
}  // namespace ProcMgr
