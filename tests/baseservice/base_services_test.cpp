#include "baseservice/base_services.h"

#include <signal.h>

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using BaseServicesTest = BaseFixture;

TEST_F(BaseServicesTest, DependenciesHaveToBeAlive) {
    const std::string asks = "PROCMGR : svc depends on ";
    const LogLine asksUp{LOG_INFO, asks + "up [svc => up]"};
    EXPECT_FALSE(services_.CheckDepends({"up"}, "svc"));
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector<LogLine>{
                  asksUp, {LOG_ERR, "PROCMGR : svc 's dependcy up hasn't been started"}}));

    StartReaper();
    Start(Service("dead", "exit 0"));
    Start(Service("up", STAYS));
    ASSERT_TRUE(WaitForExitOf("dead"));
    const struct {
        std::set<std::string> depends;
        bool isMet;
        std::vector<LogLine> lines;
    } cases[] = {
        {{}, true, {}},
        {{"up", "ghost", "zzz"},
         false,
         {{LOG_INFO, asks + "ghost [svc => ghost]"},
          {LOG_ERR, "PROCMGR : svc 's dependcy ghost not find,"}}},
        {{"up", "dead"},
         false,
         {{LOG_INFO, asks + "dead [svc => dead]"},
          {LOG_ERR, "PROCMGR : svc's dependcy dead hasn't been started"}}},
        {{"up"}, true, {asksUp, {LOG_INFO, "PROCMGR : svc's dependcy up has been started"}}},
    };
    for (const auto& [depends, isMet, expected] : cases) {
        const auto before = std::ssize(LogCapture::Lines());
        EXPECT_EQ(services_.CheckDepends(depends, "svc"), isMet);
        auto lines = LogCapture::Lines();
        lines.erase(lines.begin(), lines.begin() + before);
        EXPECT_EQ(lines, expected);
    }
}

TEST_F(BaseServicesTest, HeartbeatsAreLostAndFound) {
    Start(Service("svc", STAYS));
    const struct {
        const char* name;
        size_t length;
        uint32_t status;
        LogLine line;
    } cases[] = {
        {nullptr, 3, 1, {LOG_ERR, ", app name is invalid. (nameLen=3)"}},
        {"svc", 0, 1, {LOG_ERR, ", app name is invalid. (nameLen=0)"}},
        {"svcx", 4, 1, {LOG_ERR, ", not find base app=svcx"}},
        {"svcx", 3, 1, {LOG_INFO, ". (app=svc,pid=PID,status=lost)"}},
        {"svc", 3, 0, {LOG_INFO, ". (app=svc,pid=PID,status=recovery)"}},
    };
    for (const auto& [name, length, status, line] : cases) {
        EXPECT_EQ(services_.HeartBeatNotify(name, length, 12, status), line.level == LOG_INFO);
        EXPECT_EQ(MaskedLines().back(),
                  (LogLine{line.level, "Process heart beat notify" + line.text}));
    }
    EXPECT_EQ(services_.HeartBeatNotify("svc", 3, 12, 2), 0);
    EXPECT_TRUE(HasLine(LOG_WARNING, "App status is invalid. (status=2)"));
}

TEST_F(BaseServicesTest, StopGoesBackwardsWaitsForDependentsAndKillsTheStubborn) {
    const auto touch = [this](const std::string& name) {
        return "touch " + directory_ + "/" + name + "; while :; do sleep 0.05; done";
    };
    StartReaper();
    Start(Service("a", STAYS));
    ManifestData stubborn = Service("d", "trap '' TERM; " + touch("d"));
    stubborn.termTimeoutMs = 300;
    stubborn.forceTerm = false;
    Start(stubborn);
    Start(Service("b", STAYS, {"a"}));
    Start(Service("c", "trap 'sleep 0.3; exit 0' TERM; " + touch("c"), {"b"}));
    ASSERT_TRUE(WaitUntil([&] {
        return std::filesystem::exists(directory_ + "/c") &&
               std::filesystem::exists(directory_ + "/d");
    }));
    const auto begin = steady_clock::now();
    services_.StopAll();
    EXPECT_GE(steady_clock::now() - begin, milliseconds(300));
    EXPECT_EQ(Between("PROCMGR : SendSignal: 15 to app=", ","),
              (std::vector<std::string>{"c", "b", "d", "a"}));
    EXPECT_EQ(Between("PROCMGR : SendSignal: 9 to app=", ","), std::vector<std::string>{"d"});
    EXPECT_EQ(Between("PROCMGR : SetExitStatus ", ",").size(), 4U);
    const auto lines = LogCapture::Lines();
    const auto indexOf = [&](const std::string& part) {
        return std::find_if(lines.begin(), lines.end(),
                            [&](const LogLine& line) { return line.text.starts_with(part); }) -
               lines.begin();
    };
    EXPECT_LT(indexOf("PROCMGR : SetExitStatus c"), indexOf("PROCMGR : SendSignal: 15 to app=b"));
    EXPECT_LT(indexOf("PROCMGR : SetExitStatus b"), indexOf("PROCMGR : SendSignal: 15 to app=a"));
}

TEST_F(BaseServicesTest, ALateReadinessDoesNotUndoTheStop) {
    ManifestData data = Service("svc", "trap '' TERM; touch " + directory_ + "/up; exec sleep 60");
    data.termTimeoutMs = 60000;
    const pid_t pid = Start(data);
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(directory_ + "/up"); }));
    std::thread stop([this] { services_.StopAll(); });
    EXPECT_TRUE(WaitUntil([&] { return services_.GetState("svc") == TERMINATING; }));
    Report("svc", BaseServiceStateType::RUNNING);
    EXPECT_EQ(services_.GetState("svc"), TERMINATING);
    Report("ghost", BaseServiceStateType::RUNNING);
    EXPECT_TRUE(HasLine(
        LOG_ERR, "PROCMGR : UpdateBaseAppState failed, not find app=ghost from executedBaseApp"));
    StartReaper();
    kill(pid, SIGKILL);
    stop.join();
}

TEST_F(BaseServicesTest, APidWhoseExitIsStoredIsNotSignalled) {
    const pid_t pid = Start(Service("gone", STAYS));
    // To the list the process has ended; that it has not shows whether it is signalled.
    EXPECT_TRUE(services_.SetExitStatus(pid, 0));
    EXPECT_FALSE(services_.SetExitStatus(pid, 0)) << "that is another process's";
    services_.StopAll();
    EXPECT_TRUE(Between("PROCMGR : SendSignal", ":").empty());
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT), 0);
    EXPECT_EQ(info.si_pid, 0) << "the process was ended";
}

}  // namespace
}  // namespace ProcMgr
