// The child set-up over the recording system calls: no test here forks, executes or exits.
#include "app/child_setup.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include "main/common/daemon_signals.h"
#include "resource/cpu_num.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/fake_access_manager.h"
#include "tests/fakes/fake_sys.h"

namespace ProcMgr::App {
namespace {

using Fakes::FakeAccessManager;
using Fakes::FakeSys;

constexpr int EXECUTED = -1;
static_assert(RLIMIT_RTPRIO == 14);  // the number in the recorded calls
const std::string PREFIX = "write 77 app=svc,pid=4711,";

// A plan with a value for every step.
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
    plan.taskFiles = {"/cpuset/tasks", "/cpu/tasks"};
    plan.coreMask = CoreMask{};
    CPU_SET(0, &plan.coreMask->cores);
    plan.sharePool.groups = {{"video", "read"}, {"audio", "read"}};
    plan.sharePool.isPreconfigured = true;
    plan.sharePoolNames = "video,audio";
    plan.envs = {{"A", "1"}, {"B", ""}};
    plan.home = "/home/x";
    plan.preload = "libasan.so.4:libzorn.so.1";
    plan.startupEntryPath = "/entry";
    plan.ownerName = "EM";
    plan.plane = "PLANE_MANAGE";
    plan.heartBeatSwitch = true;
    plan.afterAbnormalExit = true;
    plan.accessConfig = {"svc", "/bin/svc"};
    plan.errorFd = 77;
    return plan;
}

class ChildSetupTest : public AppTest {
protected:
    void SetUp() override {
        AppTest::SetUp();
        FakeSys::Get().Reset();
        FakeAccessManager::Get().Reset();
        FakeAccessManager::Get().SetHook([](const AppConfig& config) {
            FakeSys::Get().Record("ZornInitProc " + config.appName + ' ' + config.execPath);
        });
    }

    // Runs the child's part of a launch. Returns EXECUTED or the exit status.
    static int Run(LaunchPlan plan, int output = -1, bool hasHandlers = true) {
        plan.environment = MakeChildEnvironment(plan);
        ChildContext child(std::move(plan), BindCount::GetInstance());
        child.output = output;
        child.hasHandlers = hasHandlers;
        child.fault = fault_;
        try {
            RunChild(child);
        } catch (const Fakes::ChildExecuted&) {
            return EXECUTED;
        } catch (const Fakes::ChildExited& exit) {
            return exit.status;
        }
    }

    // What the last children have left.
    static ChildFault Fault() { return fault_->Read(); }

    // The calls that begin with `prefix`.
    static std::vector<std::string> Calls(const std::string& prefix) {
        auto calls = FakeSys::Get().Calls();
        std::erase_if(calls, [&](const auto& call) { return !call.starts_with(prefix); });
        return calls;
    }

private:
    inline static const auto fault_ = std::make_shared<ChildFaultNote>();
};

TEST_F(ChildSetupTest, StepsRunInTheirOrder) {
    // "b:": only for a base service, "g:": only for a general application. The parent sets the
    // variables before there is a child.
    const std::vector<std::string> steps = {
        "setenv SHAREPOOL_GROUP_NAME=video,audio",
        "setenv SHAREGROUP_PRECONFIG=1",
        "g:setenv PROC_PLANE=PLANE_MANAGE",
        "g:setenv HOME=/home/x",
        "setenv A=1",
        "setenv B=",
        "g:setenv OWNER_NAME=EM",
        "b:setenv HOME=/home/x",
        "g:setenv GRP_HB=1",
        "setenv LD_PRELOAD=libasan.so.4:libzorn.so.1",
        "b:setenv IS_RESTART=1",
        "b:setenv STARTUP_ENTRY_PATH=/entry",
        "setsid",
        "getpid",
        "getrlimit 14",
        "prlimit 14 99 99",
        "sched_setscheduler 4711 1 50",
        "g:nice -5",
        "join /cpuset/tasks 4711",
        "join /cpu/tasks 4711",
        "setgroups 7,30",
        "setgid 7",
        "setuid 8",
        "ZornInitProc svc /bin/svc",
        "sched_setaffinity 4711 1",
    };
    const std::string program = "execve /bin/svc|/bin/svc|-a|two words|";
    for (const auto& [kind, other] : {std::pair(AppKind::GENERAL, "b:"), {AppKind::BASE, "g:"}}) {
        std::vector<std::string> calls;
        std::string executed = program;
        for (const std::string& step : steps) {
            if (!step.starts_with(other)) {
                calls.push_back(step.substr(step[1] == ':' ? 2 : 0));
                const std::string& call = calls.back();
                executed += call.starts_with("setenv ") ? call.substr(6) : "";
            }
        }
        calls.push_back(executed);
        FakeSys::Get().Reset();
        // Only a result below zero is a failure of the registration.
        FakeAccessManager::Get().PushInit(1, EACCES);
        EXPECT_EQ(Run(FullPlan(kind)), EXECUTED);
        EXPECT_THAT(FakeSys::Get().StepCalls(), testing::ElementsAreArray(calls));
    }
}

TEST_F(ChildSetupTest, IdsThatTheChildHasAlreadyAreNotSetAgain) {
    using Texts = std::vector<std::string>;
    const std::tuple<FakeSys::ThreeIds, uint32_t, uint32_t, Texts> cases[] = {
        {{0, 0, 0}, 0, 0, {}},
        {{0, 0, 0}, 0, 7, {"setgid 7"}},
        {{0, 0, 0}, 8, 0, {"setuid 8"}},
        {{1, 0, 0}, 0, 0, {"setgid 0", "setuid 0"}},
        {{0, 1, 0}, 0, 0, {"setgid 0", "setuid 0"}},
        {{0, 0, 1}, 0, 0, {"setgid 0", "setuid 0"}},
    };
    for (const auto& [ids, uid, gid, set] : cases) {
        FakeSys::Get().Reset();
        FakeSys::Get().SetIds(ids);
        LaunchPlan plan = FullPlan(AppKind::BASE);
        plan.uid = uid;
        plan.gid = gid;
        EXPECT_EQ(Run(std::move(plan)), EXECUTED);
        EXPECT_EQ(Calls("setgroups").size(), 1U);
        Texts calls = Calls("setgid");
        const Texts users = Calls("setuid");
        calls.insert(calls.end(), users.begin(), users.end());
        EXPECT_EQ(calls, set);
    }
}

TEST_F(ChildSetupTest, ADelayedApplicationPinsItselfOnlyAfterABindSinceTheFork) {
    for (const bool isBound : {false, true}) {
        LaunchPlan plan = FullPlan(AppKind::BASE);
        plan.isDelayed = true;
        FakeSys::Get().Reset();
        FakeAccessManager::Get().SetHook([isBound](const AppConfig& /*config*/) {
            if (isBound) {
                BindCount::GetInstance().Raise();
            }
        });
        EXPECT_EQ(Run(std::move(plan)), EXECUTED);
        EXPECT_EQ(Calls("sched_setaffinity 4711 ").size(), isBound ? 2U : 1U);
        const auto calls = FakeSys::Get().StepCalls();
        EXPECT_EQ(calls.at(calls.size() - 2),
                  "sched_setaffinity 4711 " + std::to_string(isBound ? 1 : CPU_NUM));
    }
}

TEST_F(ChildSetupTest, TheOutputIsConnectedBeforeTheIdentityChanges) {
    for (const bool isFailing : {false, true}) {
        FakeSys::Get().Reset();
        FakeSys::Get().Fail(isFailing ? "dup2 5 2" : "nothing", EBUSY);
        EXPECT_EQ(Run(FullPlan(AppKind::BASE), 5), EXECUTED);
        const auto calls = FakeSys::Get().StepCalls();
        const auto first = std::find(calls.begin(), calls.end(), "dup2 5 1");
        ASSERT_LT(first + 1, calls.end());
        EXPECT_EQ(first[1], "dup2 5 2");
        EXPECT_LT(first, std::find(calls.begin(), calls.end(), "setgroups 7,30"));
        EXPECT_EQ(Calls("write").empty(), !isFailing);
    }
    EXPECT_EQ(Calls("write"), std::vector{PREFIX + "dup2 of the output failed, errno=16;"});
}

TEST_F(ChildSetupTest, SignalsAreBackAtTheirDefaultsBeforeTheProgramRuns) {
    std::vector<int> signals(std::begin(CHANGED_SIGNALS), std::end(CHANGED_SIGNALS));
    for (const bool hasHandlers : {false, true}) {
        if (hasHandlers) {
            signals.push_back(FakeSys::SIGNAL_OF_LIBRARY);
        }
        FakeSys::Get().Reset();
        EXPECT_EQ(Run(FullPlan(AppKind::BASE), -1, hasHandlers), EXECUTED);
        const auto calls = FakeSys::Get().Calls();
        EXPECT_TRUE(calls.back().starts_with("execve"));
        // A signal that is unblocked before that would run a handler of the daemon in the child.
        const auto unblock = std::find(calls.begin(), calls.end(),
                                       "pthread_sigmask " + std::to_string(SIG_SETMASK) + " EMPTY");
        ASSERT_NE(unblock, calls.end());
        for (const int signal : signals) {
            const std::string reset = "sigaction " + std::to_string(signal) + " default";
            EXPECT_NE(std::find(calls.begin(), unblock, reset), unblock) << signal;
        }
    }
}

TEST_F(ChildSetupTest, FailuresAreReportedInOneWriteAndTheProgramStillRuns) {
    const std::string scheduler = "sched_setscheduler failed errno=1,type=1,priority=50;";
    const std::string home =
        "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=/home/x, errno=1;";
    // The first variable that fails ends its step, so this is there once.
    const std::string access = "setenv failed, errno=1;ZornInitProc failed, errno=5;";
    const std::string preload = "SetAppAsanEnv preload failed errno=1;";
    const struct {
        AppKind kind;
        std::vector<std::string> calls;
        std::string text;
    } cases[] = {
        {AppKind::BASE,
         {"prlimit", "sched_setscheduler", "join /cpu/", "setenv", "sched_setaffinity"},
         "prlimit failed,errno=1;" + scheduler +
             "add to group failed, cgroup path=/cpu/tasks is not existed;Set share pool env "
             "failed, errno=1;" +
             access + home + preload +
             "Set restart env failed, errno=1;Set startup entry path env failed, errno=1;" +
             "SetCoreAffinity fail pid=4711, errno=1;"},
        {AppKind::GENERAL,
         {"getrlimit", "sched_setscheduler", "nice", "setenv PROC_PLANE", "setenv HOME",
          "setenv OWNER_NAME", "setenv GRP_HB", "setenv LD_PRELOAD"},
         "getrlimit failed,errno=1;" + scheduler + "SetPlaneEnv PROC_PLANE failed errno=1;" + home +
             access + "SetHeartBeatSwitchEnv  failed errno=1;" + preload},
    };
    for (const auto& [kind, calls, text] : cases) {
        FakeSys::Get().Reset();
        for (const std::string& call : calls) {
            FakeSys::Get().Fail(call, EPERM);
        }
        FakeAccessManager::Get().PushInit(-1, EIO);
        EXPECT_EQ(Run(FullPlan(kind)), EXECUTED);
        EXPECT_EQ(Calls("write"), std::vector{PREFIX + text});
    }
}

TEST_F(ChildSetupTest, AChildWithoutItsIdentityRunsNoProgram) {
    using Result = UserGroups::Result;
    using Step = ChildFault::Step;
    const std::tuple<Result, std::string, std::string, std::string, Step> cases[] = {
        {Result::NO_USER, "nothing", "getpwuid is null;", "join /cpu/tasks 4711", Step::NO_USER},
        {Result::NOT_WIPED, "nothing", "SetGroups memset_s failed error=34;",
         "join /cpu/tasks 4711", Step::GROUPS},
        {Result::TOO_MANY, "nothing", "", "join /cpu/tasks 4711", Step::GROUPS},
        {Result::FOUND, "setgroups", "", "setgroups 7,30", Step::SETGROUPS},
        {Result::FOUND, "setgid", "SetAppGid=7 failed error=1;", "setgid 7", Step::SETGID},
        {Result::FOUND, "setuid", "SetAppUid=8,failed error=1;", "setuid 8", Step::SETUID},
    };
    for (const auto& [groups, failing, text, lastCall, step] : cases) {
        FakeSys::Get().Reset();
        FakeSys::Get().Fail(failing, EPERM);
        FakeSys::Get().Fail("getrlimit", EPERM);
        LaunchPlan plan = FullPlan(AppKind::BASE);
        plan.userGroups.result = groups;
        plan.userGroups.error = 34;
        EXPECT_EQ(Run(std::move(plan)), 1) << failing;
        EXPECT_EQ(Fault().step, step);
        EXPECT_EQ(Fault().error, groups == Result::FOUND ? EPERM : 34);
        const std::vector end = {lastCall, PREFIX + "getrlimit failed,errno=1;" + text,
                                 std::string("_exit 1")};
        const auto calls = FakeSys::Get().StepCalls();
        EXPECT_EQ(std::vector(calls.end() - 3, calls.end()), end);
    }
}

TEST_F(ChildSetupTest, ExecFailureReplacesTheTextAndDecidesTheExitCode) {
    struct Case {
        int error;
        int status;
        size_t attempts;
    };
    // EAGAIN: the user has too many processes, perhaps only for a moment.
    for (const auto& [error, status, attempts] :
         {Case{EIO, 125, 1}, Case{ENOENT, 1, 1}, Case{EAGAIN, 1, 50}}) {
        FakeSys::Get().Reset();
        FakeSys::Get().Fail("execve", error);
        FakeSys::Get().Fail("setenv HOME", ENOMEM);
        // A report that fails changes errno, but not the exit code.
        FakeSys::Get().Fail("write", error == EIO ? EAGAIN : EIO);
        EXPECT_EQ(Run(FullPlan(AppKind::BASE)), status);
        EXPECT_EQ(Fault().step, ChildFault::Step::EXECUTE);
        EXPECT_EQ(Fault().error, error);
        const std::vector writes = {
            PREFIX + "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=/home/x, errno=12;",
            PREFIX + "execv failed, execPath_=/bin/svc, errno=" + std::to_string(error) + ";"};
        EXPECT_EQ(Calls("write"), writes);
        EXPECT_EQ(Calls("execve").size(), attempts);
    }
}

TEST_F(ChildSetupTest, AForkThatFailsLeavesNoProcess) {
    FakeSys::Get().SetFork(-1, EAGAIN);
    BaseAppInfo base(Manifest(SomeService()));
    EXPECT_FALSE(StartNow(base));
    EXPECT_EQ(base.GetState(), INITSTATE);
    EXPECT_EQ(LogCapture::Lines(), (Lines{{3, "PROCMGR : Start baseApp svc failed errno=11"}}));
    GeneralAppInfo general = GeneralApp();
    general.pid_ = 12;
    general.killSent_ = true;
    general.SetExitStatus(SIGKILL);
    MoveTo(general, RESTARTING);
    EXPECT_TRUE(general.IsRestartDue());
    EXPECT_EQ(general.FinishRestart(StartNow(general)), TERMINATED);
    EXPECT_EQ(general.reportType_, TERMINATED_ABNORMAL_EXIT);
    EXPECT_FALSE(general.restartStarted_);
    EXPECT_FALSE(general.IsAlive()) << "its pid is free";
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{3, "PROCMGR: Start generalApp failed. fork failed: errno=11"},
                     {6, "PROCMGR : RESTARTING to TERMINATED appName=svc, pid=12"}}));
    EXPECT_TRUE(Calls("execve").empty() && Calls("_exit").empty());
}

TEST_F(ChildSetupTest, AnExceptionEndsTheChild) {
    FakeAccessManager::Get().SetHook([](const AppConfig&) { throw std::bad_alloc(); });
    GeneralAppInfo app = GeneralApp();
    EXPECT_THROW(StartNow(app), Fakes::ChildExited);
    EXPECT_TRUE(Calls("execve").empty());
}

TEST_F(ChildSetupTest, AForkedChildGetsTheValuesOfItsRecord) {
    ManifestData data = SomeService();
    data.args = {"-v"};
    data.env = {{"LD_PRELOAD", "/lib/libasan.so.6"}};
    data.setRtPrio = "50";
    data.setRtType = "SCHED_RR";
    data.heartbeat = true;
    GeneralAppInfo app = GeneralApp(data, "vintor");
    EXPECT_THROW(StartNow(app), Fakes::ChildExecuted);
    BaseAppInfo dead(Manifest(SomeService()));
    dead.pid_ = 12;
    MoveTo(dead, RUNNING);
    dead.SetExitStatus(EXIT_1);
    EXPECT_EQ(dead.CheckState(), TERMINATED);
    EXPECT_THROW(StartNow(dead), Fakes::ChildExecuted);
    const auto calls = FakeSys::Get().StepCalls();
    for (const char* call : {"sched_setscheduler 4711 2 50", "setenv PROC_PLANE=PLANE_DATA",
                             "setenv OWNER_NAME=vintor", "setenv GRP_HB=1",
                             "setenv LD_PRELOAD=libasan.so.4:libzorn.so.1",
                             "ZornInitProc svc /bin/true", "setenv IS_RESTART=1"}) {
        EXPECT_THAT(calls, testing::Contains(call));
    }
    EXPECT_TRUE(calls.back().starts_with("execve /bin/true|/bin/true "));
    EXPECT_EQ(Calls("execve /bin/true|/bin/true|-v ").size(), 1U);
    EXPECT_TRUE(Calls("nice").empty() && Calls("write").empty());
}

}  // namespace
}  // namespace ProcMgr::App
