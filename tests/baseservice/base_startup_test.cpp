#include "baseservice/base_startup.h"

#include <future>

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

using Fakes::FakeHeartBeat;
using Fakes::FakeMuxa;
using Fakes::LogCapture;

class BaseStartupTest : public BaseFixture {
protected:
    void TearDown() override {
        reportedState_.Stop();
        if (startupEnd_.valid()) {
            startupEnd_.wait();
        }
        BaseFixture::TearDown();
    }

    // One entry of a YAML list of services; `more` are further keys.
    static std::string Entry(const std::string& name, const std::string& more = "") {
        return "  - {name: " + name + ", bin: /bin/sh, args: [-c, '" + STAYS + "']" +
               (more.empty() ? "" : ", " + more) + "}\n";
    }
    void Init(const std::string& entries) {
        startup_.InitBaseApplication(WriteYaml("services:\n" + entries));
    }
    // Runs start-up on a thread of its own, as it may have to wait.
    void InitInBackground(const std::string& entries) {
        startupEnd_ = std::async(std::launch::async, [this, entries] { Init(entries); });
    }
    bool HasEnded() { return startupEnd_.wait_for(PATIENCE) == std::future_status::ready; }
    static bool WaitForTheWait(const std::string& name) {
        return LogCapture::WaitFor(
            LOG_INFO,
            "PROCMGR: waiting for baseApp=" + name + " reported state, RUNNING OR TERMINATING.",
            PATIENCE);
    }

    std::future<void> startupEnd_;
};

TEST_F(BaseStartupTest, AServiceThatRunsIsNotStartedAgain) {
    App::BaseAppInfo record = Record(Service("svc", STAYS));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_EQ(StartedNames().size(), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_WARNING, "PROCMGR=svc is already running"), 1U);
}

TEST_F(BaseStartupTest, AVertexWithoutAManifestAbandonsStartUp) {
    // Its name comes from a file whose manifests the start does not get.
    std::vector<ApplicationManifest> elsewhere;
    ASSERT_TRUE(startup_.ParseYamlFile(WriteYaml("services:\n" + Entry("missing")), elsewhere));
    ASSERT_EQ(elsewhere.size(), 1U);
    Init(Entry("a") + Entry("z") + Entry("later", "depends: [a]"));
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"a"});
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : can't find missing"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "InitBaseApplication end"));
}

TEST_F(BaseStartupTest, WaitsForWhatTheServiceReports) {
    StartReaper();
    StartChecker();
    InitInBackground(Entry("a", "reporting: true, gid: 7") + Entry("b", "reporting: true") +
                     Entry("c", "reporting: true") + Entry("d"));
    ASSERT_TRUE(WaitForTheWait("a"));
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"a"}) << "what follows waits";
    Report("a", BaseServiceStateType::RUNNING);
    ASSERT_TRUE(WaitForTheWait("b"));
    Report("b", BaseServiceStateType::TERMINATING);
    ASSERT_TRUE(WaitForTheWait("c"));
    const auto watched = FakeHeartBeat::Get().Watched("c");
    ASSERT_TRUE(watched);
    kill(*watched, SIGKILL);

    ASSERT_TRUE(HasEnded());
    const std::string head = "STAMP InitBaseApp:";
    EXPECT_TRUE(HasLine(LOG_INFO, head + "a success, report RUNNING!"));
    EXPECT_TRUE(HasLine(LOG_WARNING, head + "b report TERMINATING!"));
    EXPECT_TRUE(HasLine(LOG_WARNING, head + "c has been 4!"));
    EXPECT_EQ(StartedNames(), (std::vector<std::string>{"a", "b", "c", "d"}));
    const auto opens = FakeMuxa::Get().Opens();
    ASSERT_EQ(opens.size(), 3U) << "only services that report have a pipe";
    EXPECT_EQ(opens[0].attributes.name, "a");
    EXPECT_EQ(opens[0].attributes.value, 7U) << "the record's gid decides who may be the peer";
}

TEST_F(BaseStartupTest, AReportBeforeTheWaitIsNotMissed) {
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN,
                            [this](int32_t) { Report("early", BaseServiceStateType::RUNNING); });
    InitInBackground(Entry("early", "reporting: true"));
    ASSERT_TRUE(HasEnded());
    EXPECT_TRUE(HasLine(LOG_INFO, "STAMP InitBaseApp:early success, report RUNNING!"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "waiting for baseApp"));
}

TEST_F(BaseStartupTest, AServiceThatIsNoLongerListedIsNotWaitedFor) {
    EXPECT_FALSE(startup_.WaitBaseAppReport("vanished"));
    EXPECT_TRUE(HasLine(LOG_WARNING, "STAMP InitBaseApp:vanished has been 4!"));
}

TEST_F(BaseStartupTest, AStopEndsTheWait) {
    InitInBackground(Entry("a", "reporting: true") + Entry("b"));
    ASSERT_TRUE(WaitForTheWait("a"));
    reportedState_.Stop();
    ASSERT_TRUE(HasEnded());
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"a"});
    EXPECT_FALSE(HasLine(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=1"));
}

TEST_F(BaseStartupTest, HeartbeatAndPipeFailures) {
    FakeMuxa::Get().Push(FakeMuxa::Call::OPEN, -13);
    FakeHeartBeat::Get().PushRegister(5);
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN,
                            [this](int32_t) { Report("z_nobeat", BaseServiceStateType::RUNNING); });
    Init(Entry("nopipe", "reporting: true") + Entry("z_nobeat", "reporting: true"));
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : procname=nopipe RegisterService failed"));
    EXPECT_TRUE(HasLine(LOG_ERR, "process-manager cur time:STAMP, start baseApp=nopipe failed"));
    EXPECT_TRUE(HasLine(LOG_ERR, "Register heart beat for z_nobeat failed. (ret=5)"));
    EXPECT_EQ(FakeHeartBeat::Get().Registrations().size(), 1U);
}

}  // namespace
}  // namespace ProcMgr
