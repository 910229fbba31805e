#include "baseservice/base_services.h"

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

using BaseServicesTest = BaseFixture;

TEST_F(BaseServicesTest, DependenciesHaveToBeAlive) {
    const std::string asks = "PROCMGR : svc depends on ";
    EXPECT_FALSE(services_.CheckDepends({"up"}, "svc"));
    EXPECT_THAT(MaskedLines(),
                ElementsAre(LogLine{LOG_INFO, asks + "up [svc => up]"},
                            LogLine{LOG_ERR, "PROCMGR : svc 's dependcy up hasn't been started"}));

    StartReaper();
    Start(Service("dead", "exit 0"));
    Start(Service("up", STAYS));
    ASSERT_TRUE(WaitForExitOf("dead"));
    LogCapture::Clear();
    EXPECT_TRUE(services_.CheckDepends({}, "svc"));
    EXPECT_FALSE(services_.CheckDepends({"up", "ghost", "zzz"}, "svc"));
    EXPECT_FALSE(services_.CheckDepends({"up", "dead"}, "svc"));
    EXPECT_TRUE(services_.CheckDepends({"up"}, "svc"));
    EXPECT_THAT(MaskedLines(),
                ElementsAre(LogLine{LOG_INFO, asks + "ghost [svc => ghost]"},
                            LogLine{LOG_ERR, "PROCMGR : svc 's dependcy ghost not find,"},
                            LogLine{LOG_INFO, asks + "dead [svc => dead]"},
                            LogLine{LOG_ERR, "PROCMGR : svc's dependcy dead hasn't been started"},
                            LogLine{LOG_INFO, asks + "up [svc => up]"},
                            LogLine{LOG_INFO, "PROCMGR : svc's dependcy up has been started"}));
}

TEST_F(BaseServicesTest, HeartbeatNotifications) {
    Start(Service("svc", STAYS));
    LogCapture::Clear();
    EXPECT_EQ(services_.HeartBeatNotify(nullptr, 3, 12, 1), 0);
    EXPECT_EQ(services_.HeartBeatNotify("svc", 0, 12, 1), 0);
    EXPECT_EQ(services_.HeartBeatNotify("svcx", 4, 12, 1), 0);
    EXPECT_EQ(services_.HeartBeatNotify("svcx", 3, 12, 1), 1) << "the name ends at its length";
    EXPECT_EQ(services_.HeartBeatNotify("svc", 3, 12, 0), 1);
    EXPECT_EQ(services_.HeartBeatNotify("svc", 3, 12, 2), 0);
    const std::string head = "Process heart beat notify";
    EXPECT_THAT(MaskedLines(),
                ElementsAre(LogLine{LOG_ERR, head + ", app name is invalid. (nameLen=3)"},
                            LogLine{LOG_ERR, head + ", app name is invalid. (nameLen=0)"},
                            LogLine{LOG_ERR, head + ", not find base app=svcx"},
                            LogLine{LOG_INFO, head + ". (app=svc,pid=PID,status=lost)"},
                            LogLine{LOG_INFO, head + ". (app=svc,pid=PID,status=recovery)"},
                            LogLine{LOG_WARNING, "App status is invalid. (status=2)"}));
}

TEST_F(BaseServicesTest, TheStopWaitsForTheEndOfDependentServices) {
    StartReaper();
    Start(Service("a", STAYS));
    Start(Service("b", STAYS, "", {"a"}));
    Start(Service("c",
                  "trap 'sleep 0.3; exit 0' TERM; touch " + directory_ / "up" +
                      "; while :; do sleep 0.05; done",
                  "", {"b"}));
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(directory_ / "up"); }));
    services_.StopAll();
    std::vector<std::string> steps;
    for (const auto& [level, text] : MaskedLines()) {
        if (text.starts_with("PROCMGR : SetExitStatus ")) {
            steps.push_back(text.substr(24, 1) + " ended");
        } else if (text.starts_with("PROCMGR : SendSignal: 15 to app=")) {
            steps.push_back(text.substr(32, 1) + " SIGTERM");
        }
    }
    EXPECT_THAT(
        steps, ElementsAre("c SIGTERM", "c ended", "b SIGTERM", "b ended", "a SIGTERM", "a ended"));
    EXPECT_THAT(Between("PROCMGR : SendSignal: 9", ","), IsEmpty());
}

TEST_F(BaseServicesTest, ALateReadinessReportDoesNotUndoTheStop) {
    ManifestData data = Service("svc", "trap '' TERM; touch " + directory_ / "up" + "; " + STAYS);
    data.termTimeoutMs = 60000;
    const pid_t pid = Start(data);
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(directory_ / "up"); }));
    std::jthread stop([this] { services_.StopAll(); });
    EXPECT_TRUE(WaitUntil([&] { return services_.GetState("svc") == TERMINATING; }));
    ReportRunning("svc");
    EXPECT_EQ(services_.GetState("svc"), TERMINATING);
    ReportRunning("ghost");
    EXPECT_TRUE(HasLine(
        LOG_ERR, "PROCMGR : UpdateBaseAppState failed, not find app=ghost from executedBaseApp"));
    StartReaper();
    kill(pid, SIGKILL);
}

TEST_F(BaseServicesTest, APidWhoseExitIsStoredIsNotSignalled) {
    const pid_t pid = Start(Service("gone", STAYS));
    // The process is still alive, so that a signal to it would show.
    EXPECT_TRUE(services_.SetExitStatus(pid, 0));
    EXPECT_FALSE(services_.SetExitStatus(pid, 0)) << "the pid may belong to another process now";
    services_.StopAll();
    EXPECT_THAT(Between("PROCMGR : SendSignal", ":"), IsEmpty());
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "the process has been ended";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace
}  // namespace ProcMgr
