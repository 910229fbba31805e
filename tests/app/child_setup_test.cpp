// Over the recording system calls: nothing here forks, executes or exits.
#include "app/child_setup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "app/process_launcher.h"
#include "main/proc_mgr_env.h"
#include "main/signals.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/fake_access_manager.h"
#include "tests/fakes/fake_sys.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

using Fakes::FakeAccessManager;
using Fakes::FakeSys;
using Fakes::LogCapture;
using Fakes::LogLine;
using testing::ElementsAreArray;

constexpr int EXECUTED = -1;
constexpr int ERROR_FD = 77;
const std::string RTPRIO = std::to_string(RLIMIT_RTPRIO);
const std::string PREFIX = "write 77 app=svc,pid=4711,";

// A plan in which every step has something to do.
LaunchPlan FullPlan(AppKind kind) {
    LaunchPlan plan;
    plan.kind = kind;
    plan.appName = "svc";
    plan.execPath = "/bin/svc";
    plan.arguments = {"-a", "two words", ""};
    plan.uid = 8;
    plan.gid = 7;
    plan.userGroups = {UserGroups::Result::FOUND, 0, {7, 30}};
    plan.raiseRealTimeLimit = true;
    plan.schedPolicy = SCHED_FIFO;
    plan.rtPriority = 50;
    plan.nice = kind == AppKind::GENERAL ? -5 : 0;
    plan.envs = {{"A", "1"}, {"B", ""}};
    plan.home = "/home/x";
    plan.preload = "libasan.so.4:libzorn.so.1";
    plan.startupEntryPath = "/entry";
    plan.ownerName = "EM";
    plan.plane = "PLANE_MANAGE";
    plan.heartBeatSwitch = true;
    plan.afterAbnormalExit = true;
    plan.accessConfig = {"svc", "/bin/svc"};
    plan.errorFd = ERROR_FD;
    return plan;
}

std::vector<std::string> IdentityCalls() {
    return {"getpid",
            "getrlimit " + RTPRIO,
            "prlimit " + RTPRIO + " 99 99",
            "sched_setscheduler 4711 1 50",
            "setgroups 7,30",
            "setgid 7",
            "setuid 8"};
}

std::vector<std::string> GeneralCalls() {
    auto calls = IdentityCalls();
    calls.insert(calls.begin() + 4, "nice -5");
    calls.insert(
        calls.end(),
        {"setenv PROC_PLANE=PLANE_MANAGE", "setenv HOME=/home/x", "setenv A=1",
         "setenv B=", "setenv OWNER_NAME=EM", "ZornInitProc svc /bin/svc", "setenv GRP_HB=1",
         "setenv LD_PRELOAD=libasan.so.4:libzorn.so.1", "execv /bin/svc|/bin/svc|-a|two words|"});
    return calls;
}

std::vector<std::string> BaseCalls() {
    auto calls = IdentityCalls();
    calls.insert(calls.end(),
                 {"setenv A=1", "setenv B=", "ZornInitProc svc /bin/svc", "setenv HOME=/home/x",
                  "setenv LD_PRELOAD=libasan.so.4:libzorn.so.1", "setenv IS_RESTART=1",
                  "setenv STARTUP_ENTRY_PATH=/entry", "execv /bin/svc|/bin/svc|-a|two words|"});
    return calls;
}

class ChildSetupTest : public testing::Test {
protected:
    void SetUp() override {
        FakeSys::Get().Reset();
        FakeAccessManager::Get().Reset();
        FakeAccessManager::Get().SetHook([](const AppConfig& config) {
            FakeSys::Get().Record("ZornInitProc " + config.appName + ' ' + config.execPath);
        });
        LogCapture::Clear();
    }

    // Runs the child's part; returns EXECUTED or the status that it exits with.
    static int Run(const LaunchPlan& plan) {
        ChildContext child(plan);
        try {
            RunChild(child);
        } catch (const Fakes::ChildExecuted&) {
            return EXECUTED;
        } catch (const Fakes::ChildExited& exit) {
            return exit.status;
        }
    }

    static std::vector<std::string> Writes() {
        auto calls = FakeSys::Get().Calls();
        std::erase_if(calls, [](const auto& call) { return !call.starts_with("write"); });
        return calls;
    }

    static size_t CountCalls(const std::string& prefix) {
        const auto calls = FakeSys::Get().Calls();
        return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [&](const auto& call) {
            return call.starts_with(prefix);
        }));
    }
};

TEST_F(ChildSetupTest, StepsRunInTheirOrder) {
    EXPECT_EQ(Run(FullPlan(AppKind::GENERAL)), EXECUTED);
    EXPECT_THAT(FakeSys::Get().StepCalls(), ElementsAreArray(GeneralCalls()));
    FakeSys::Get().Reset();
    EXPECT_EQ(Run(FullPlan(AppKind::BASE)), EXECUTED);
    EXPECT_THAT(FakeSys::Get().StepCalls(), ElementsAreArray(BaseCalls()));
}

TEST_F(ChildSetupTest, APlainPlanSkipsWhatItDoesNotAskFor) {
    for (const AppKind kind : {AppKind::GENERAL, AppKind::BASE}) {
        LaunchPlan plan;
        plan.kind = kind;
        plan.appName = "svc";
        plan.execPath = "/bin/svc";
        plan.userGroups.result = UserGroups::Result::FOUND;
        plan.ownerName = "vintor";
        plan.plane = "PLANE_DATA";
        plan.accessConfig = {"svc", "/bin/svc"};
        std::vector<std::string> calls = {"getpid", "setgroups ", "setgid 0", "setuid 0"};
        if (kind == AppKind::GENERAL) {
            calls.insert(calls.end(), {"setenv PROC_PLANE=PLANE_DATA", "setenv HOME=",
                                       "setenv OWNER_NAME=vintor", "ZornInitProc svc /bin/svc"});
        } else {
            calls.insert(calls.end(),
                         {"ZornInitProc svc /bin/svc", "setenv HOME=", "setenv IS_RESTART=0"});
        }
        calls.push_back("execv /bin/svc|/bin/svc");
        FakeSys::Get().Reset();
        EXPECT_EQ(Run(plan), EXECUTED);
        EXPECT_THAT(FakeSys::Get().StepCalls(), ElementsAreArray(calls));
    }
}

TEST_F(ChildSetupTest, SignalsAreBackAtTheirDefaultsBeforeTheProgramRuns) {
    EXPECT_EQ(Run(FullPlan(AppKind::BASE)), EXECUTED);
    const auto calls = FakeSys::Get().Calls();
    EXPECT_TRUE(calls.back().starts_with("execv"));
    size_t lastReset = 0;
    for (const int signal : CHANGED_SIGNALS) {
        const auto reset = std::find(calls.begin(), calls.end(),
                                     "sigaction " + std::to_string(signal) + " default");
        ASSERT_NE(reset, calls.end()) << signal;
        lastReset = std::max(lastReset, static_cast<size_t>(reset - calls.begin()));
    }
    const auto unblock = std::find(calls.begin(), calls.end(),
                                   "pthread_sigmask " + std::to_string(SIG_SETMASK) + " EMPTY");
    ASSERT_NE(unblock, calls.end());
    // Unblocked earlier, a signal would run a handler of the daemon's in the child.
    EXPECT_GT(static_cast<size_t>(unblock - calls.begin()), lastReset);
}

struct Failure {
    AppKind kind;
    std::string call;
    int error;
    std::string text;
};

TEST_F(ChildSetupTest, AStepThatFailsIsReportedAndTheProgramStillRuns) {
    const auto general = AppKind::GENERAL;
    const auto base = AppKind::BASE;
    const Failure cases[] = {
        {general, "getrlimit", EINVAL, "getrlimit failed,errno=22;"},
        {base, "prlimit", EPERM, "prlimit failed,errno=1;"},
        {general, "sched_setscheduler", EPERM,
         "sched_setscheduler failed errno=1,type=1,priority=50;"},
        {base, "sched_setscheduler", EINVAL,
         "sched_setscheduler failed errno=22,type=1,priority=50;"},
        {general, "nice", EPERM, ""},
        {general, "setenv PROC_PLANE", ENOMEM, "SetPlaneEnv PROC_PLANE failed errno=12;"},
        {general, "setenv HOME", ENOMEM,
         "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=/home/x, errno=12;"},
        {base, "setenv HOME", ENOMEM,
         "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=/home/x, errno=12;"},
        {general, "setenv A", ENOMEM, "setenv failed, errno=12;"},
        {base, "setenv B", EINVAL, "setenv failed, errno=22;"},
        {general, "setenv OWNER_NAME", ENOMEM, "setenv failed, errno=12;"},
        {general, "setenv GRP_HB", ENOMEM, "SetHeartBeatSwitchEnv  failed errno=12;"},
        {general, "setenv LD_PRELOAD", ENOMEM, "SetAppAsanEnv preload failed errno=12;"},
        {base, "setenv LD_PRELOAD", ENOMEM, "SetAppAsanEnv preload failed errno=12;"},
        {base, "setenv IS_RESTART", ENOMEM, "Set restart env failed, errno=12;"},
        {base, "setenv STARTUP_ENTRY_PATH", ENOMEM, "Set startup entry path env failed, errno=12;"},
    };
    for (const auto& [kind, call, error, text] : cases) {
        FakeSys::Get().Reset();
        FakeSys::Get().Fail(call, error);
        EXPECT_EQ(Run(FullPlan(kind)), EXECUTED) << call;
        std::vector<std::string> writes;
        if (!text.empty()) {
            writes.push_back(PREFIX + text);
        }
        EXPECT_EQ(Writes(), writes) << call;
        EXPECT_EQ(CountCalls("ZornInitProc"), 1U) << call;
        EXPECT_EQ(CountCalls("setenv LD_PRELOAD"), 1U) << call;
    }
}

TEST_F(ChildSetupTest, TheFirstVariableThatFailsIsTheLastOneTried) {
    FakeSys::Get().Fail("setenv A", ENOMEM);
    EXPECT_EQ(Run(FullPlan(AppKind::BASE)), EXECUTED);
    EXPECT_EQ(CountCalls("setenv A"), 1U);
    EXPECT_EQ(CountCalls("setenv B"), 0U);
}

TEST_F(ChildSetupTest, AccessRegistrationFailsOnlyBelowZero) {
    FakeAccessManager::Get().PushInit(-1, EACCES);
    EXPECT_EQ(Run(FullPlan(AppKind::BASE)), EXECUTED);
    EXPECT_EQ(Writes(), std::vector{PREFIX + "ZornInitProc failed, errno=13;"});
    FakeSys::Get().Reset();
    FakeAccessManager::Get().PushInit(1, EACCES);
    EXPECT_EQ(Run(FullPlan(AppKind::GENERAL)), EXECUTED);
    EXPECT_TRUE(Writes().empty());
}

TEST_F(ChildSetupTest, AllThatFailsGoesInOneWriteInTheOrderOfTheSteps) {
    for (const char* call : {"prlimit", "sched_setscheduler", "setenv"}) {
        FakeSys::Get().Fail(call, EPERM);
    }
    FakeAccessManager::Get().PushInit(-1, EIO);
    EXPECT_EQ(Run(FullPlan(AppKind::BASE)), EXECUTED);
    EXPECT_EQ(Writes(),
              std::vector{PREFIX +
                          "prlimit failed,errno=1;"
                          "sched_setscheduler failed errno=1,type=1,priority=50;"
                          "setenv failed, errno=1;"
                          "ZornInitProc failed, errno=5;"
                          "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=/home/x, errno=1;"
                          "SetAppAsanEnv preload failed errno=1;"
                          "Set restart env failed, errno=1;"
                          "Set startup entry path env failed, errno=1;"});
}

TEST_F(ChildSetupTest, WithoutItsIdentityNothingRuns) {
    using Result = UserGroups::Result;
    struct Case {
        Result groups;
        std::string call;
        std::string text;
        std::string lastCall;
    };
    const Case cases[] = {
        {Result::NO_USER, "nothing", "getpwuid is null;", "sched_setscheduler 4711 1 50"},
        {Result::TOO_MANY, "nothing", "", "sched_setscheduler 4711 1 50"},
        {Result::FOUND, "setgroups", "", "setgroups 7,30"},
        {Result::FOUND, "setgid", "SetAppGid=7 failed error=1;", "setgid 7"},
        {Result::FOUND, "setuid", "SetAppUid=8,failed error=1;", "setuid 8"},
    };
    for (const Case& test : cases) {
        for (const bool isSchedulerFailing : {false, true}) {
            FakeSys::Get().Reset();
            FakeSys::Get().Fail(test.call, EPERM);
            std::string text = test.text;
            if (isSchedulerFailing) {
                FakeSys::Get().Fail("sched_setscheduler", EPERM);
                text = "sched_setscheduler failed errno=1,type=1,priority=50;" + text;
            }
            LaunchPlan plan = FullPlan(AppKind::BASE);
            plan.userGroups.result = test.groups;
            EXPECT_EQ(Run(plan), 1) << test.call;
            std::vector<std::string> end = {test.lastCall};
            if (!text.empty()) {
                end.push_back(PREFIX + text);
            }
            end.emplace_back("_exit 1");
            auto calls = FakeSys::Get().StepCalls();
            ASSERT_GE(calls.size(), end.size());
            calls.erase(calls.begin(), calls.end() - static_cast<std::ptrdiff_t>(end.size()));
            EXPECT_EQ(calls, end);
        }
    }
}

TEST_F(ChildSetupTest, UserRecordThatIsNotWipedIsReported) {
    LaunchPlan plan = FullPlan(AppKind::BASE);
    plan.userGroups.result = UserGroups::Result::NOT_WIPED;
    plan.userGroups.error = 34;
    Run(plan);
    EXPECT_EQ(Writes(), std::vector{PREFIX + "SetGroups memset_s failed error=34;"});
}

TEST_F(ChildSetupTest, ExecFailureReplacesTheTextAndDecidesTheExitCode) {
    const std::pair<int, int> cases[] = {{EIO, 125}, {ENOENT, 1}, {EACCES, 1}, {E2BIG, 1}};
    for (const auto& [error, status] : cases) {
        FakeSys::Get().Reset();
        FakeSys::Get().Fail("execv", error);
        FakeSys::Get().Fail("setenv HOME", ENOMEM);
        // A report that fails changes errno, but not the exit code.
        FakeSys::Get().Fail("write", error == EIO ? EAGAIN : EIO);
        EXPECT_EQ(Run(FullPlan(AppKind::BASE)), status);
        const std::vector writes = {
            PREFIX + "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=/home/x, errno=12;",
            PREFIX + "execv failed, execPath_=/bin/svc, errno=" + std::to_string(error) + ";"};
        EXPECT_EQ(Writes(), writes);
    }
}

TEST_F(ChildSetupTest, NoTextOrNoPipeIsNoReport) {
    ReportChildError(ERROR_FD, "svc", 1, "");
    ReportChildError(-1, "svc", 1, "text;");
    EXPECT_TRUE(Writes().empty());
    ReportChildError(5, "a b", 12, "text;");
    EXPECT_EQ(Writes(), std::vector<std::string>{"write 5 app=a b,pid=12,text;"});
    FakeSys::Get().Fail("write", EAGAIN);
    ReportChildError(5, "svc", 12, std::string(9000, 'x'));
    EXPECT_EQ(Writes().size(), 2U);
}

TEST_F(ChildSetupTest, AForkThatFailsLeavesNoProcess) {
    FakeSys::Get().SetFork(-1, EAGAIN);
    ProcessLauncher launcher;
    BaseAppInfo base(Manifest(SomeService()));
    EXPECT_FALSE(base.StartProcess(launcher));
    EXPECT_EQ(base.state_, INITSTATE);
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector{LogLine{3, "PROCMGR : Start baseApp svc failed errno=11"}}));
    LogCapture::Clear();
    GeneralAppInfo general("svc", Manifest(SomeService()), "EM");
    EXPECT_FALSE(general.StartProcess(launcher));
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector{LogLine{3, "PROCMGR: Start generalApp failed. fork failed: errno=11"}}));
    EXPECT_EQ(CountCalls("fork"), 2U);
    EXPECT_EQ(CountCalls("execv") + CountCalls("_exit"), 0U);
}

TEST_F(ChildSetupTest, ARestartWhoseStartFailsIsTerminated) {
    FakeSys::Get().SetFork(-1, EAGAIN);
    ProcessLauncher launcher;
    GeneralAppInfo app("svc", Manifest(SomeService()), "EM");
    app.pid_ = 12;
    app.state_ = RESTARTING;
    app.killSent_ = true;
    app.SetExitStatus(SIGKILL);
    LogCapture::Clear();
    EXPECT_EQ(app.CheckState(SteadyTime{}, launcher), TERMINATED);
    EXPECT_EQ(app.reportType_, TERMINATED_ABNORMAL_EXIT);
    EXPECT_FALSE(app.killSent_);
    EXPECT_FALSE(app.restartStarted_);
    EXPECT_TRUE(LogCapture::Contains(6, "PROCMGR : RESTARTING to TERMINATED appName=svc, pid=12"));
    EXPECT_FALSE(app.IsAlive()) << "its pid is free";
}

TEST_F(ChildSetupTest, AnExceptionEndsTheChild) {
    FakeSys::Get().SetFork(0);
    FakeAccessManager::Get().SetHook([](const AppConfig&) { throw std::bad_alloc(); });
    ProcessLauncher launcher;
    BaseAppInfo app(Manifest(SomeService()));
    EXPECT_THROW(app.StartProcess(launcher), Fakes::ChildExited);
    EXPECT_EQ(CountCalls("execv"), 0U);
}

TEST_F(ChildSetupTest, AForkedChildGetsWhatItsRecordSays) {
    ProcMgrEnv::GetInstance().SetHome("/home/x");
    FakeSys::Get().SetFork(0);
    ManifestData data = SomeService();
    data.args = {"-v"};
    data.env = {{"LD_PRELOAD", "/lib/libasan.so.6"}};
    data.setRtPrio = "50";
    data.setRtType = "SCHED_RR";
    data.heartbeat = true;
    ProcessLauncher launcher;
    GeneralAppInfo app("svc", Manifest(data), "vintor");
    EXPECT_THROW(app.StartProcess(launcher), Fakes::ChildExecuted);
    const auto calls = FakeSys::Get().StepCalls();
    for (const char* call : {"sched_setscheduler 4711 2 50", "setenv PROC_PLANE=PLANE_DATA",
                             "setenv HOME=/home/x", "setenv OWNER_NAME=vintor", "setenv GRP_HB=1",
                             "setenv LD_PRELOAD=libasan.so.4:libzorn.so.1",
                             "execv /bin/true|/bin/true|-v", "ZornInitProc svc /bin/true"}) {
        EXPECT_THAT(calls, testing::Contains(call));
    }
    EXPECT_EQ(CountCalls("nice"), 0U);
    EXPECT_TRUE(Writes().empty());
}

}  // namespace
}  // namespace ProcMgr::App
