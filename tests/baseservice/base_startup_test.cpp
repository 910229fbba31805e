#include "baseservice/base_startup.h"

#include <atomic>
#include <future>

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

class BaseStartupTest : public BaseFixture {
protected:
    // One entry of a YAML list of services; `more` are further keys.
    static std::string Entry(const std::string& name, const std::string& more = "depends: []") {
        return "  - {name: " + name + ", bin: /bin/sh, args: [-c, '" + STAYS + "'], " + more +
               "}\n";
    }
    std::string WriteYaml(const std::string& entries) const {
        Tests::WriteFile(directory_ / "base.yaml", "services:\n" + entries);
        return directory_ / "base.yaml";
    }
    void Init(const std::string& entries) { startup_.InitBaseApplication(WriteYaml(entries)); }
};

TEST_F(BaseStartupTest, AServiceWithoutAManifestAbandonsStartUp) {
    // The name comes from a file whose manifests are dropped here.
    std::vector<ApplicationManifest> dropped;
    ASSERT_TRUE(startup_.ParseYamlFile(WriteYaml(Entry("missing")), dropped));
    ASSERT_EQ(dropped.size(), 1U);
    Init(Entry("a") + Entry("z") + Entry("later", "depends: [a]"));
    EXPECT_THAT(StartedNames(), ElementsAre("a"));
    EXPECT_THAT(MaskedLines(), Contains("3 PROCMGR : can't find missing"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "InitBaseApplication end"));
}

TEST_F(BaseStartupTest, AReportBeforeTheWaitIsNotMissedAndADependentWaitsForTheRestart) {
    StartReaper();
    // The first process ends after its report; the second one reports, too.
    std::atomic<pid_t> startUpThread{0};
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN, [&](int32_t) {
        ReportRunning("early");
        startUpThread = gettid();
        if (CountExits("early") == 0) {
            KillAndWait("early");
        }
    });
    const auto startUp = std::async(std::launch::async, [this] {
        Init(Entry("early", "reporting: true, gid: 7, restart: on-forever") +
             Entry("late", "depends: [early]"));
    });
    EXPECT_TRUE(LogCapture::WaitForPart(LOG_INFO, " InitBaseApp:early success, report RUNNING!"));
    EXPECT_EQ(FakeHeartBeat::Get().Watched("early"), PidOf("early"));
    // Until the thread sleeps.
    const std::string stat = "/proc/self/task/" + std::to_string(startUpThread) + "/stat";
    ASSERT_TRUE(WaitUntil([&] { return Tests::ReadFile(stat).find(") S ") != stat.npos; }));
    Check();
    EXPECT_TRUE(WaitUntil([] { return StartedNames().size() == 3; }));
    reportedState_.Stop();
    startUp.wait();
    EXPECT_THAT(StartedNames(), ElementsAre("early", "early", "late"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "waiting for baseApp"));
    const auto opens = FakeMuxa::Get().Opens();
    ASSERT_EQ(opens.size(), 2U) << "only a service that reports has a pipe";
    EXPECT_EQ(opens[0].attributes.name, "early");
    EXPECT_EQ(opens[0].attributes.value, 7U) << "the gid decides who may attach to the pipe";
}

TEST_F(BaseStartupTest, ServicesThatRunOrAreNotListedAndTheStop) {
    App::BaseAppInfo record = Record(Service("svc", STAYS));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_EQ(LogCapture::Count(LOG_WARNING, "PROCMGR=svc is already running"), 1U);
    EXPECT_FALSE(startup_.WaitBaseAppReport("vanished"));
    EXPECT_THAT(MaskedLines(), Contains("4 STAMP InitBaseApp:vanished has been 4!"));
    reportedState_.Stop();
    Init(Entry("late"));
    EXPECT_THAT(StartedNames(), ElementsAre("svc"));
}

TEST_F(BaseStartupTest, FailuresOfHeartbeatAndPipe) {
    FakeMuxa::Get().Push(FakeMuxa::Call::OPEN, -13);
    FakeHeartBeat::Get().PushRegister(5);
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN, [this](int32_t) { ReportRunning("z_nobeat"); });
    Init(Entry("nopipe", "reporting: true") + Entry("z_nobeat", "reporting: true"));
    for (const char* line : {"3 PROCMGR : procname=nopipe RegisterService failed",
                             "3 process-manager cur time:STAMP, start baseApp=nopipe failed",
                             "3 Register heart beat for z_nobeat failed. (ret=5)"}) {
        EXPECT_THAT(MaskedLines(), Contains(line));
    }
    EXPECT_EQ(FakeHeartBeat::Get().Registrations().size(), 1U);
}

}  // namespace
}  // namespace ProcMgr
