#include "baseservice/base_startup.h"

#include <future>

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

class BaseStartupTest : public BaseFixture {
protected:
    void TearDown() override {
        reportedState_.Stop();
        startupEnd_ = {};
        BaseFixture::TearDown();
    }

    // One entry of a YAML list of services; `more` are further keys.
    static std::string Entry(const std::string& name, const std::string& more = "") {
        return "  - {name: " + name + ", bin: /bin/sh, args: [-c, '" + STAYS + "']" +
               (more.empty() ? "" : ", " + more) + "}\n";
    }
    std::string WriteYaml(const std::string& entries) const {
        Tests::WriteFile(directory_ / "base.yaml", "services:\n" + entries);
        return directory_ / "base.yaml";
    }
    void Init(const std::string& entries) { startup_.InitBaseApplication(WriteYaml(entries)); }
    // Runs start-up on another thread, because it may wait.
    void InitInBackground(const std::string& entries) {
        startupEnd_ = std::async(std::launch::async, [this, entries] { Init(entries); });
    }
    bool HasEnded() { return startupEnd_.wait_for(PATIENCE) == std::future_status::ready; }

    std::future<void> startupEnd_;
};

TEST_F(BaseStartupTest, AServiceThatRunsIsNotStartedAgain) {
    App::BaseAppInfo record = Record(Service("svc", STAYS));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_THAT(StartedNames(), ElementsAre("svc"));
    EXPECT_EQ(LogCapture::Count(LOG_WARNING, "PROCMGR=svc is already running"), 1U);
}

TEST_F(BaseStartupTest, AServiceWithoutAManifestAbandonsStartUp) {
    // The name comes from a file whose manifests are dropped here.
    std::vector<ApplicationManifest> dropped;
    ASSERT_TRUE(startup_.ParseYamlFile(WriteYaml(Entry("missing")), dropped));
    ASSERT_EQ(dropped.size(), 1U);
    Init(Entry("a") + Entry("z") + Entry("later", "depends: [a]"));
    EXPECT_THAT(StartedNames(), ElementsAre("a"));
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : can't find missing"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "InitBaseApplication end"));
}

TEST_F(BaseStartupTest, TheNextServiceWaitsForTheReport) {
    InitInBackground(Entry("a", "reporting: true, gid: 7") + Entry("b"));
    ASSERT_TRUE(LogCapture::WaitFor(
        LOG_INFO, "PROCMGR: waiting for baseApp=a reported state, RUNNING OR TERMINATING.",
        PATIENCE));
    EXPECT_THAT(StartedNames(), ElementsAre("a"));
    EXPECT_EQ(FakeHeartBeat::Get().Watched("a"), PidOf("a"));
    ReportRunning("a");
    ASSERT_TRUE(HasEnded());
    EXPECT_TRUE(HasLine(LOG_INFO, "STAMP InitBaseApp:a success, report RUNNING!"));
    EXPECT_THAT(StartedNames(), ElementsAre("a", "b"));
    const auto opens = FakeMuxa::Get().Opens();
    ASSERT_EQ(opens.size(), 1U) << "only a service that reports has a pipe";
    EXPECT_EQ(opens[0].attributes.name, "a");
    EXPECT_EQ(opens[0].attributes.value, 7U) << "the gid decides who may attach to the pipe";
}

TEST_F(BaseStartupTest, AReportBeforeTheWaitIsNotMissed) {
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN, [this](int32_t) { ReportRunning("early"); });
    InitInBackground(Entry("early", "reporting: true"));
    ASSERT_TRUE(HasEnded());
    EXPECT_TRUE(HasLine(LOG_INFO, "STAMP InitBaseApp:early success, report RUNNING!"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "waiting for baseApp"));
}

TEST_F(BaseStartupTest, AServiceThatIsNotListedIsNotWaitedFor) {
    EXPECT_FALSE(startup_.WaitBaseAppReport("vanished"));
    EXPECT_TRUE(HasLine(LOG_WARNING, "STAMP InitBaseApp:vanished has been 4!"));
}

TEST_F(BaseStartupTest, FailuresOfHeartbeatAndPipe) {
    FakeMuxa::Get().Push(FakeMuxa::Call::OPEN, -13);
    FakeHeartBeat::Get().PushRegister(5);
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN, [this](int32_t) { ReportRunning("z_nobeat"); });
    Init(Entry("nopipe", "reporting: true") + Entry("z_nobeat", "reporting: true"));
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : procname=nopipe RegisterService failed"));
    EXPECT_TRUE(HasLine(LOG_ERR, "process-manager cur time:STAMP, start baseApp=nopipe failed"));
    EXPECT_TRUE(HasLine(LOG_ERR, "Register heart beat for z_nobeat failed. (ret=5)"));
    EXPECT_EQ(FakeHeartBeat::Get().Registrations().size(), 1U);
}

}  // namespace
}  // namespace ProcMgr
