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
    EXPECT_TRUE(services_.CheckDepends({}, "svc"));
    EXPECT_TRUE(LogCapture::Lines().empty());

    const std::string asks = "PROCMGR : svc depends on ";
    EXPECT_FALSE(services_.CheckDepends({"up"}, "svc"));
    EXPECT_EQ(
        LogCapture::Lines(),
        (std::vector<LogLine>{{LOG_INFO, asks + "up [svc => up]"},
                              {LOG_ERR, "PROCMGR : svc 's dependcy up hasn't been started"}}));

    StartReaper();
    Start(Service("dead", "exit 0"));
    Start(Service("up", STAYS));
    Start(Service("up2", STAYS));
    ASSERT_TRUE(WaitForExitOf("dead"));
    struct Case {
        std::set<std::string> depends;
        bool isMet;
        std::vector<LogLine> lines;
    };
    const LogLine asksUp{LOG_INFO, asks + "up [svc => up]"};
    const LogLine isUp{LOG_INFO, "PROCMGR : svc's dependcy up has been started"};
    const Case cases[] = {
        {{"up2", "up"},
         true,
         {asksUp,
          isUp,
          {LOG_INFO, asks + "up2 [svc => up2]"},
          {LOG_INFO, "PROCMGR : svc's dependcy up2 has been started"}}},
        {{"up", "ghost", "zzz"},
         false,
         {{LOG_INFO, asks + "ghost [svc => ghost]"},
          {LOG_ERR, "PROCMGR : svc 's dependcy ghost not find,"}}},
        {{"up", "dead"},
         false,
         {{LOG_INFO, asks + "dead [svc => dead]"},
          {LOG_ERR, "PROCMGR : svc's dependcy dead hasn't been started"}}},
        {{"up", "z"},
         false,
         {asksUp,
          isUp,
          {LOG_INFO, asks + "z [svc => z]"},
          {LOG_ERR, "PROCMGR : svc 's dependcy z not find,"}}},
    };
    for (const Case& testCase : cases) {
        const size_t before = LogCapture::Lines().size();
        EXPECT_EQ(services_.CheckDepends(testCase.depends, "svc"), testCase.isMet);
        auto lines = LogCapture::Lines();
        lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(before));
        EXPECT_EQ(lines, testCase.lines);
    }
}

TEST_F(BaseServicesTest, ChecksMoveServicesOn) {
    StartReaper();
    ManifestData reporting = Service("reporting", STAYS);
    reporting.reporting = true;
    Start(reporting);
    Start(Service("plain", STAYS));
    const pid_t dies = Start(Service("dies", "exec sleep 60"));
    Start(Service("fails", "exit 3"));
    EXPECT_EQ(services_.GetState("plain"), STARTING);
    EXPECT_EQ(services_.GetState("ghost"), std::nullopt);
    EXPECT_FALSE(services_.SetExitStatus(1, 0));
    ASSERT_TRUE(WaitForExitOf("fails"));

    Check();
    EXPECT_EQ(services_.GetState("reporting"), STARTING);
    EXPECT_EQ(services_.GetState("plain"), RUNNING);
    EXPECT_EQ(services_.GetState("dies"), RUNNING);
    EXPECT_TRUE(HasLine(LOG_INFO, "PROCMGR : STARTING to RUNNING appName=plain, pid=PID"));
    EXPECT_TRUE(HasLine(LOG_INFO, "PROCMGR : STARTING to TERMINATED appName=fails, pid=PID"));
    EXPECT_TRUE(HasLine(LOG_WARNING,
                        "PROCMGR : Process=fails, pid=PID was self terminated, the exit status "
                        "is 3."));

    kill(dies, SIGKILL);
    ASSERT_TRUE(WaitForExitOf("dies"));
    Check();
    EXPECT_TRUE(HasLine(LOG_INFO, "PROCMGR : RUNNING to TERMINATED appName=dies, pid=PID"));
    EXPECT_TRUE(HasLine(LOG_WARNING,
                        "PROCMGR : Process=dies, pid=PID terminated by calling Kill(), signal=9"));
}

TEST_F(BaseServicesTest, ServicesSpeakForThemselves) {
    ManifestData data = Service("svc", STAYS);
    data.reporting = true;
    const pid_t pid = Start(data);
    Report("svc", BaseServiceStateType::RUNNING);
    EXPECT_EQ(services_.GetState("svc"), RUNNING);
    Report("svc", BaseServiceStateType::TERMINATING);
    EXPECT_EQ(services_.GetState("svc"), TERMINATING);
    // The last word stays with the exit.
    StartReaper();
    kill(pid, SIGTERM);
    ASSERT_TRUE(WaitForExitOf("svc"));
    Check();
    Report("svc", BaseServiceStateType::TERMINATING);
    const auto state = services_.GetState("svc");
    EXPECT_TRUE(!state || state == TERMINATED);

    LogCapture::Clear();
    Report("ghost", BaseServiceStateType::RUNNING);
    Report("ghost", BaseServiceStateType::TERMINATING);
    EXPECT_EQ(LogCapture::Count(
                  LOG_ERR,
                  "PROCMGR : UpdateBaseAppState failed, not find app=ghost from executedBaseApp"),
              2U);
}

TEST_F(BaseServicesTest, HeartbeatsAreLostAndFound) {
    Start(Service("svc", STAYS));
    struct Case {
        const char* name;
        size_t length;
        uint32_t status;
        int result;
        LogLine line;
    };
    const std::string notify = "Process heart beat notify";
    const Case cases[] = {
        {nullptr, 3, 1, 0, {LOG_ERR, notify + ", app name is invalid. (nameLen=3)"}},
        {"svc", 0, 1, 0, {LOG_ERR, notify + ", app name is invalid. (nameLen=0)"}},
        {"ghost", 5, 1, 0, {LOG_ERR, notify + ", not find base app=ghost"}},
        {"svcx", 4, 1, 0, {LOG_ERR, notify + ", not find base app=svcx"}},
        {"svcx", 3, 1, 1, {LOG_INFO, notify + ". (app=svc,pid=PID,status=lost)"}},
        {"svc", 3, 0, 1, {LOG_INFO, notify + ". (app=svc,pid=PID,status=recovery)"}},
        {"svc", 3, 2, 0, {LOG_WARNING, "App status is invalid. (status=2)"}},
    };
    for (const auto& [name, length, status, result, line] : cases) {
        const size_t before = LogCapture::Lines().size();
        EXPECT_EQ(services_.HeartBeatNotify(name, length, 12, status), result);
        const auto lines = MaskedLines();
        ASSERT_EQ(lines.size(), before + 1);
        EXPECT_EQ(lines.back(), line);
    }
}

TEST_F(BaseServicesTest, StopGoesBackwardsAndWaitsForDependents) {
    StartReaper();
    Start(Service("a", STAYS));
    Start(Service("d", STAYS));
    Start(Service("b", STAYS, {"a"}));
    const std::string ready = directory_ + "/ready";
    Start(Service(
        "c", "trap 'sleep 0.3; exit 0' TERM; touch " + ready + "; while :; do sleep 0.05; done",
        {"b"}));
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(ready); }));
    services_.StopAll();
    EXPECT_EQ(Between("PROCMGR : SendSignal: 15 to app=", ","),
              (std::vector<std::string>{"c", "b", "d", "a"}));
    EXPECT_TRUE(Between("PROCMGR : SendSignal: 9 to app=", ",").empty());
    const auto lines = LogCapture::Lines();
    const auto indexOf = [&](const std::string& part) {
        return std::find_if(lines.begin(), lines.end(),
                            [&](const LogLine& line) { return line.text.find(part) == 0; }) -
               lines.begin();
    };
    EXPECT_LT(indexOf("PROCMGR : SetExitStatus c"), indexOf("PROCMGR : SendSignal: 15 to app=b"));
    EXPECT_LT(indexOf("PROCMGR : SetExitStatus b"), indexOf("PROCMGR : SendSignal: 15 to app=a"));
    EXPECT_LT(indexOf("PROCMGR : SetExitStatus a"), std::ssize(lines));
}

TEST_F(BaseServicesTest, StopKillsWhatIgnoresItsTerm) {
    StartReaper();
    constexpr milliseconds TIMEOUT(300);
    for (const bool forceTerm : {true, false}) {
        const std::string name = forceTerm ? "forced" : "unforced";
        ManifestData data =
            Service(name, "trap '' TERM; touch " + directory_ + "/" + name + "; exec sleep 60");
        data.termTimeoutMs = TIMEOUT.count();
        data.forceTerm = forceTerm;
        Start(data);
        ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(directory_ + "/" + name); }));
    }
    const auto begin = steady_clock::now();
    services_.StopAll();
    EXPECT_GE(steady_clock::now() - begin, TIMEOUT);
    auto killed = Between("PROCMGR : SendSignal: 9 to app=", ",");
    std::sort(killed.begin(), killed.end());
    EXPECT_EQ(killed, (std::vector<std::string>{"forced", "unforced"}));
    EXPECT_EQ(Between("PROCMGR : SetExitStatus ", ",").size(), 2U);
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
    StartReaper();
    kill(pid, SIGKILL);
    stop.join();
}

TEST_F(BaseServicesTest, APidWhoseExitIsStoredIsNotSignalled) {
    const pid_t pid = Start(Service("gone", STAYS));
    // To the list the process has ended; that it has not shows whether it is signalled.
    EXPECT_TRUE(services_.SetExitStatus(pid, 0));
    services_.StopAll();
    EXPECT_TRUE(Between("PROCMGR : SendSignal", ":").empty());
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT), 0);
    EXPECT_EQ(info.si_pid, 0) << "the process was ended";
}

}  // namespace
}  // namespace ProcMgr
