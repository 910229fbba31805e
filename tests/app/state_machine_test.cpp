#include <chrono>

#include "app/exit_status.h"
#include "tests/app/app_test_support.h"
#include "tests/support/child.h"

namespace ProcMgr::App {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using Tests::Child;

const SteadyTime START = SteadyTime{} + std::chrono::hours(1);

struct Row {
    ProcessState from;
    std::optional<int32_t> exit;
    ProcessState to;
    ReportAppStateType report;
    Lines lines;
    bool isReporting = false;
    bool isNewProcess = false;  // restartStarted_
};

Lines Exits(const std::string& from) {
    return {{6, "PROCMGR : " + from + " to TERMINATED appName=svc, pid=12"},
            {4, "PROCMGR : Process=svc, pid=12 was self terminated, the exit status is 1."}};
}
Lines Unexpected(const std::string& state) {
    return {{3, "PROCMGR : Process svc got unexpected " + state}};
}

constexpr auto NO_REPORT = INVALID_INTERMEDIATE_STATE;
constexpr auto ABNORMAL = TERMINATED_ABNORMAL_EXIT;

const std::vector<Row> COMMON_ROWS = {
    {STARTING,
     {},
     RUNNING,
     RUNNING_NORMAL_START,
     {{6, "PROCMGR : STARTING to RUNNING appName=svc, pid=12"}}},
    {STARTING, EXIT_1, TERMINATED, ABNORMAL, Exits("STARTING")},
    {RUNNING, {}, RUNNING, NO_REPORT, {}},
    {RUNNING, EXIT_1, TERMINATED, ABNORMAL, Exits("RUNNING")},
    {INITSTATE, {}, INITSTATE, NO_REPORT, Unexpected("state=0")},
};

const std::vector<Row> BASE_ROWS = {
    {STARTING, {}, STARTING, NO_REPORT, {}, true},
    {STARTING, EXIT_1, TERMINATED, ABNORMAL, Exits("STARTING"), true},
    {TERMINATING, {}, TERMINATING, NO_REPORT, {}},
    {TERMINATING, EXIT_1, TERMINATED, TERMINATED_NORMAL_EXIT, Exits("TERMINATING")},
    {TERMINATED, {}, TERMINATED, ABNORMAL, Unexpected("TERMINATED state")},
    {RESTARTING, {}, RESTARTING, NO_REPORT, Unexpected("state=5")},
};

const std::vector<Row> GENERAL_ROWS = {
    // The result of the last check stays.
    {TERMINATED, {}, TERMINATED, RUNNING_NORMAL_RESTART, Unexpected("TERMINATED state")},
    {RESTARTING, {}, RUNNING, RUNNING_NORMAL_RESTART, {}, false, true},
    {RESTARTING, EXIT_1, TERMINATED, ABNORMAL, Exits("RESTARTING"), false, true},
};

// Makes the record as the row states and runs `check`, its state check.
void ExpectRow(AppInfo& app, const Row& row, const std::function<ProcessState()>& check) {
    app.pid_ = 12;
    app.reportType_ = RUNNING_NORMAL_RESTART;
    app.exitedWith125_ = true;
    app.isReporting_ = row.isReporting;
    if (row.exit) {
        app.SetExitStatus(*row.exit);
    }
    MoveTo(app, row.from);
    const std::string what = GetProcessStateStr(row.from) + (row.exit ? " exited" : "");
    EXPECT_EQ(check(), row.to) << what;
    EXPECT_EQ(app.GetState(), row.to) << what;
    EXPECT_EQ(app.reportType_, row.report) << what;
    EXPECT_FALSE(app.exitedWith125_) << what;
    EXPECT_EQ(LogCapture::Lines(), row.lines) << what;
}

class StateMachineTest : public AppTest {
protected:
    // A general application whose terminate or restart began at START.
    static GeneralAppInfo Ending(pid_t pid, ProcessState state, uint32_t timeout, bool isForced) {
        ManifestData data = SomeService();
        data.termTimeoutMs = timeout;
        data.forceTerm = isForced;
        GeneralAppInfo app = GeneralApp(data);
        app.pid_ = pid;
        MoveTo(app, state);
        app.SetTermStartTime(START);
        return app;
    }
};

TEST_F(StateMachineTest, Rows) {
    for (const auto& rows : {COMMON_ROWS, BASE_ROWS}) {
        for (const Row& row : rows) {
            BaseAppInfo app(Manifest(SomeService()));
            ExpectRow(app, row, [&] { return app.CheckState(); });
        }
    }
    for (const auto& rows : {COMMON_ROWS, GENERAL_ROWS}) {
        for (const Row& row : rows) {
            GeneralAppInfo app = GeneralApp();
            app.restartStarted_ = row.isNewProcess;
            ExpectRow(app, row, [&] { return app.CheckState(START); });
        }
    }
}

// A change outside the table is logged, and made like a permitted one.
TEST_F(StateMachineTest, OnlyTheChangesOfTheTableArePermitted) {
    constexpr uint32_t STATES = RESTARTING + 1;
    constexpr uint32_t REASONS = static_cast<uint32_t>(ChangeReason::EXITED) + 1;
    for (uint32_t i = 0; i < STATES * STATES * REASONS; ++i) {
        const StateChange change{static_cast<ProcessState>(i % STATES),
                                 static_cast<ProcessState>(i / STATES % STATES),
                                 static_cast<ChangeReason>(i / STATES / STATES)};
        BaseAppInfo app(Manifest(SomeService()));
        MoveTo(app, change.from);
        EXPECT_EQ(app.ChangeState(change.to, change.reason), change.to);
        EXPECT_EQ(app.GetState(), change.to);
        EXPECT_EQ(LogCapture::Lines().empty(), IsTransition(change));
    }
}

TEST_F(StateMachineTest, ACoreDumpIsLoggedInsteadOfItsSignal) {
    LogExitStatus(SIGABRT | 0x80, "svc", 12);
    EXPECT_EQ(LogCapture::Lines(), (Lines{{3, "PROCMGR: Process=svc, pid=12 was coredump"}}));
}

TEST_F(StateMachineTest, OnlyAZornmgrJobMayExitNormally) {
    const std::tuple<std::string, std::string, int32_t, bool> cases[] = {
        {"on-until-succeed", "zornmgr", 0, true},
        {"on-until-succeed", "zornmgr", SIGTERM, false},
        {"on-until-succeed", "zornmgr", 125 << 8, false},
        {"on-until-succeed", "vintor", 0, false},
        {"on-failure", "zornmgr", 0, false},
    };
    for (const auto& [policy, owner, status, isNormal] : cases) {
        ManifestData data = SomeService();
        data.restart = policy;
        GeneralAppInfo app = GeneralApp(data, owner);
        app.pid_ = 12;
        app.SetExitStatus(status);
        MoveTo(app, RUNNING);
        EXPECT_EQ(app.CheckState(START), TERMINATED);
        EXPECT_EQ(app.reportType_, isNormal ? TERMINATED_NORMAL_EXIT : ABNORMAL)
            << policy << owner << status;
        EXPECT_EQ(app.exitedWith125_, status == 125 << 8);
        EXPECT_EQ(LogCapture::Contains(6, "PROCMGR : non resident app=svc normal exit"), isNormal);
    }
}

TEST_F(StateMachineTest, ATerminateThatTimesOutKillsExactlyOnce) {
    Child child;
    const std::string id = std::to_string(child.Pid());
    GeneralAppInfo app = Ending(child.Pid(), TERMINATING, 20, true);
    EXPECT_EQ(app.CheckState(START + nanoseconds(19'999'999)), TERMINATING);
    EXPECT_EQ(app.reportType_, INVALID_INTERMEDIATE_STATE);
    EXPECT_FALSE(app.killSent_);
    for (const int elapsed : {20, 21, 500}) {
        EXPECT_EQ(app.CheckState(START + milliseconds(elapsed)), TERMINATING);
        EXPECT_EQ(app.reportType_, INVALID_INTERMEDIATE_STATE);
        EXPECT_TRUE(app.killSent_);
    }
    app.SetExitStatus(child.Wait());
    EXPECT_EQ(app.CheckState(START + nanoseconds(507'999'999)), TERMINATED);
    EXPECT_EQ(app.reportType_, TERMINATED_NORMAL_EXIT);
    EXPECT_FALSE(app.killSent_);
    EXPECT_EQ(
        LogCapture::Lines(),
        (Lines{
            {6, "PROCMGR : term timeout and forceTerm is true, so kill appName=svc, pid=" + id +
                    ",TERMINATING to TERMINATED"},
            {6, "PROCMGR : SendSignal: 9 to app=svc, pid=" + id},
            {6, "PROCMGR : SendSignal: Successfully kill appName=svc, pid=" + id},
            {6, "PROCMGR : SetExitStatus svc, pid=" + id},
            {6, "PROCMGR : TERMINATING to TERMINATED. (appName=svc,pid=" + id + ",cost=507 ms)"},
            {4, "PROCMGR : Process=svc, pid=" + id + " terminated by calling Kill(), signal=9"},
        }));
}

TEST_F(StateMachineTest, ARestartKillsWithoutForceTermTooAndStartsAgain) {
    Child child;
    const pid_t oldPid = child.Pid();
    GeneralAppInfo app = Ending(oldPid, RESTARTING, 20, false);
    app.savedForceTerm_ = true;
    for (const int elapsed : {20, 40}) {
        EXPECT_EQ(app.CheckState(START + milliseconds(elapsed)), RESTARTING);
        EXPECT_EQ(app.reportType_, INVALID_INTERMEDIATE_STATE);
        EXPECT_FALSE(app.IsRestartDue());
    }
    EXPECT_EQ(LogCapture::Count(6, "PROCMGR : SendSignal: Successfully kill appName=svc, pid=" +
                                       std::to_string(oldPid)),
              1U);
    app.SetExitStatus(child.Wait());
    EXPECT_EQ(app.CheckState(START + milliseconds(50)), RESTARTING);
    EXPECT_TRUE(app.IsRestartDue());
    EXPECT_EQ(app.FinishRestart(StartNow(app)), RESTARTING);
    EXPECT_FALSE(app.IsRestartDue());
    EXPECT_FALSE(app.killSent_);
    EXPECT_TRUE(app.forceTerm_);
    EXPECT_NE(app.pid_, oldPid);
    EXPECT_EQ(app.CheckState(START + milliseconds(60)), RUNNING);
    EXPECT_EQ(app.reportType_, RUNNING_NORMAL_RESTART);
    EXPECT_EQ(waitpid(app.pid_, nullptr, 0), app.pid_);
}

TEST_F(StateMachineTest, RestartLimiter) {
    BaseAppInfo app(Manifest(SomeService()));
    EXPECT_FALSE(app.NeedRestart(START)) << "without a policy";
    app.restartPolicy_ = "on-failure";
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(app.NeedRestart(START + std::chrono::seconds(i)));
    }
    // Just after the period the oldest restart makes room...
    EXPECT_TRUE(app.NeedRestart(START + nanoseconds(60'001'000'000)));
    EXPECT_TRUE(LogCapture::Lines().empty());
    // ...and in the last nanosecond of the next one's period it does not.
    EXPECT_FALSE(app.NeedRestart(START + std::chrono::seconds(1) + nanoseconds(60'000'999'999)));
    EXPECT_FALSE(app.NeedRestart(START + std::chrono::hours(10))) << "given up for good";
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{3, "PROCMGR : Process=svc has restart 5 times in recent 60000 ms."}}));
    app.restartPolicy_ = "on-forever";
    EXPECT_TRUE(app.NeedRestart(START)) << "has no limit";
}

}  // namespace
}  // namespace ProcMgr::App
