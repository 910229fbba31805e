#include "baseservice/base_services.h"

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

using BaseServicesTest = BaseFixture;

TEST_F(BaseServicesTest, DependenciesHaveToBeAlive) {
    EXPECT_FALSE(services_.CheckDepends({"up"}, "svc"));
    StartReaper();
    Start(Service("dead", "exit 0"));
    Start(Service("up", STAYS));
    ASSERT_TRUE(WaitForExitOf("dead"));
    EXPECT_TRUE(services_.CheckDepends({}, "svc"));
    EXPECT_FALSE(services_.CheckDepends({"up", "ghost", "zzz"}, "svc"));
    EXPECT_FALSE(services_.CheckDepends({"up", "dead"}, "svc"));
    EXPECT_TRUE(services_.CheckDepends({"up"}, "svc"));
    std::vector<std::string> lines = MaskedLines();
    std::erase_if(lines, [](const auto& line) { return line.find("depend") == line.npos; });
    const std::string asks = "6 PROCMGR : svc depends on ";
    EXPECT_THAT(
        lines,
        ElementsAre(asks + "up [svc => up]", "3 PROCMGR : svc 's dependcy up hasn't been started",
                    asks + "ghost [svc => ghost]", "3 PROCMGR : svc 's dependcy ghost not find,",
                    asks + "dead [svc => dead]",
                    "3 PROCMGR : svc's dependcy dead hasn't been started", asks + "up [svc => up]",
                    "6 PROCMGR : svc's dependcy up has been started"));
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
    EXPECT_THAT(MaskedLines(), ElementsAre("3 " + head + ", app name is invalid. (nameLen=3)",
                                           "3 " + head + ", app name is invalid. (nameLen=0)",
                                           "3 " + head + ", not find base app=svcx",
                                           "6 " + head + ". (app=svc,pid=PID,status=lost)",
                                           "6 " + head + ". (app=svc,pid=PID,status=recovery)",
                                           "4 App status is invalid. (status=2)"));
}

TEST_F(BaseServicesTest, TheStopWaitsForTheEndOfDependentServices) {
    StartReaper();
    Start(Service("a", STAYS));
    Start(Service("b", STAYS, "", {"a"}));
    ManifestData slow = Service("c",
                                "trap 'until [ -e " + directory_ / "go" +
                                    " ]; do sleep 0.01; done; exit 0' TERM; touch " +
                                    directory_ / "up" + "; while :; do sleep 0.01; done",
                                "", {"b"});
    slow.termTimeoutMs = 60000;
    Start(slow);
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(directory_ / "up"); }));
    std::jthread stop([this] { services_.StopAll(); });
    EXPECT_TRUE(WaitUntil([&] { return services_.GetState("c") == TERMINATING; }));
    ReportRunning("c");
    EXPECT_EQ(services_.GetState("c"), TERMINATING) << "the readiness report came too late";
    ReportRunning("ghost");
    EXPECT_THAT(
        MaskedLines(),
        Contains("3 PROCMGR : UpdateBaseAppState failed, not find app=ghost from executedBaseApp"));
    Tests::WriteFile(directory_ / "go", "");
    stop.join();
    std::vector<std::string> steps;
    for (const std::string& line : MaskedLines()) {
        if (line.find("PROCMGR : SetExitStatus ") == 2) {
            steps.push_back(line.substr(26, 1) + " ended");
        } else if (line.find("PROCMGR : SendSignal: 15 to app=") == 2) {
            steps.push_back(line.substr(34, 1) + " SIGTERM");
        }
    }
    EXPECT_THAT(
        steps, ElementsAre("c SIGTERM", "c ended", "b SIGTERM", "b ended", "a SIGTERM", "a ended"));
    EXPECT_THAT(Between("PROCMGR : SendSignal: 9", ","), IsEmpty());
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
