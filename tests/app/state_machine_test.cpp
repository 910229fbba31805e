#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "app/base_app_info.h"
#include "app/general_app_info.h"
#include "app/process_launcher.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

const SteadyTime START = SteadyTime{} + std::chrono::hours(1);
constexpr int32_t EXIT_1 = 1 << 8;

struct Row {
    ProcessState from;
    std::optional<int32_t> exit;
    ProcessState to;
    ReportAppStateType report;
    std::vector<LogLine> lines;
    bool isReporting = false;
    bool isNewProcess = false;  // restartStarted_
};

using Lines = std::vector<LogLine>;

Lines Moves(const std::string& fromTo) {
    return {{6, "PROCMGR : " + fromTo + " appName=svc, pid=12"}};
}
Lines Exits(const std::string& from, int code) {
    return {{6, "PROCMGR : " + from + " to TERMINATED appName=svc, pid=12"},
            {4, "PROCMGR : Process=svc, pid=12 was self terminated, the exit status is " +
                    std::to_string(code) + "."}};
}
Lines Unexpected(const std::string& state) {
    return {{3, "PROCMGR : Process svc got unexpected " + state}};
}

constexpr auto NO_REPORT = INVALID_INTERMEDIATE_STATE;
constexpr auto ABNORMAL = TERMINATED_ABNORMAL_EXIT;

const std::vector<Row> COMMON_ROWS = {
    {STARTING, {}, RUNNING, RUNNING_NORMAL_START, Moves("STARTING to RUNNING")},
    {STARTING, EXIT_1, TERMINATED, ABNORMAL, Exits("STARTING", 1)},
    {RUNNING, {}, RUNNING, NO_REPORT, {}},
    {RUNNING, EXIT_1, TERMINATED, ABNORMAL, Exits("RUNNING", 1)},
    {INITSTATE, {}, INITSTATE, NO_REPORT, Unexpected("state=0")},
};

const std::vector<Row> BASE_ROWS = {
    {STARTING, {}, STARTING, NO_REPORT, {}, true},
    {STARTING, EXIT_1, TERMINATED, ABNORMAL, Exits("STARTING", 1), true},
    {TERMINATING, {}, TERMINATING, NO_REPORT, {}},
    {TERMINATING, EXIT_1, TERMINATED, TERMINATED_NORMAL_EXIT, Exits("TERMINATING", 1)},
    {TERMINATED, {}, TERMINATED, ABNORMAL, Unexpected("TERMINATED state")},
    {RESTARTING, {}, RESTARTING, NO_REPORT, Unexpected("state=5")},
};

const std::vector<Row> GENERAL_ROWS = {
    // What the last check found stays as it is.
    {TERMINATED, {}, TERMINATED, RUNNING_NORMAL_RESTART, Unexpected("TERMINATED state")},
    {RESTARTING, {}, RUNNING, RUNNING_NORMAL_RESTART, {}, false, true},
    {RESTARTING, EXIT_1, TERMINATED, ABNORMAL, Exits("RESTARTING", 1), false, true},
};

void Prepare(AppInfo& app, const Row& row) {
    app.pid_ = 12;
    MoveTo(app, row.from);
    app.reportType_ = RUNNING_NORMAL_RESTART;
    app.exitedWith125_ = true;
    app.isReporting_ = row.isReporting;
    if (row.exit) {
        app.SetExitStatus(*row.exit);
    }
    LogCapture::Clear();
}

void ExpectRow(const AppInfo& app, ProcessState result, const Row& row) {
    const std::string what = GetProcessStateStr(row.from) + (row.exit ? " exited" : "");
    EXPECT_EQ(result, row.to) << what;
    EXPECT_EQ(app.GetState(), row.to) << what;
    EXPECT_EQ(app.reportType_, row.report) << what;
    EXPECT_FALSE(app.exitedWith125_) << what;
    EXPECT_EQ(LogCapture::Lines(), row.lines) << what;
}

class StateMachineTest : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }

    // A general application whose terminate or restart has begun at START.
    GeneralAppInfo Ending(pid_t pid, ProcessState state, uint32_t timeout, bool isForced) const {
        ManifestData data = SomeService();
        data.termTimeoutMs = timeout;
        data.forceTerm = isForced;
        GeneralAppInfo app("svc", Manifest(data), "EM");
        app.pid_ = pid;
        MoveTo(app, state);
        app.SetTermStartTime(START);
        return app;
    }

    ProcessLauncher launcher_;
};

TEST_F(StateMachineTest, Rows) {
    for (const auto& rows : {COMMON_ROWS, BASE_ROWS}) {
        for (const Row& row : rows) {
            BaseAppInfo app(Manifest(SomeService()));
            Prepare(app, row);
            ExpectRow(app, app.CheckState(), row);
        }
    }
    for (const auto& rows : {COMMON_ROWS, GENERAL_ROWS}) {
        for (const Row& row : rows) {
            GeneralAppInfo app("svc", Manifest(SomeService()), "EM");
            app.restartStarted_ = row.isNewProcess;
            Prepare(app, row);
            ExpectRow(app, app.CheckState(START), row);
        }
    }
}

TEST_F(StateMachineTest, OnlyAZornmgrJobMayExitNormally) {
    struct Case {
        const char* policy;
        const char* owner;
        int32_t status;
        bool isNormal = false;
    };
    const Case cases[] = {
        {"on-until-succeed", "zornmgr", 0, true}, {"on-until-succeed", "zornmgr", EXIT_1},
        {"on-until-succeed", "zornmgr", SIGTERM}, {"on-until-succeed", "zornmgr", 125 << 8},
        {"on-until-succeed", "vintor", 0},        {"on-failure", "zornmgr", 0},
    };
    for (const Case& test : cases) {
        ManifestData data = SomeService();
        data.restart = test.policy;
        GeneralAppInfo app("svc", Manifest(data), test.owner);
        app.pid_ = 12;
        MoveTo(app, RUNNING);
        app.SetExitStatus(test.status);
        LogCapture::Clear();
        EXPECT_EQ(app.CheckState(START), TERMINATED);
        EXPECT_EQ(app.reportType_, test.isNormal ? TERMINATED_NORMAL_EXIT : ABNORMAL)
            << test.policy << test.owner << test.status;
        EXPECT_EQ(app.exitedWith125_, test.status == 125 << 8);
        EXPECT_EQ(LogCapture::Count(6, "PROCMGR : non resident app=svc normal exit"),
                  test.isNormal ? 1U : 0U);
    }
}

TEST_F(StateMachineTest, ATerminateThatTimesOutKillsExactlyOnce) {
    WaitingChild child;
    const std::string id = std::to_string(child.Pid());
    GeneralAppInfo app = Ending(child.Pid(), TERMINATING, 20, true);
    for (const auto elapsed : {nanoseconds(0), nanoseconds(19'999'999)}) {
        EXPECT_EQ(app.CheckState(START + elapsed), TERMINATING);
        EXPECT_EQ(app.reportType_, INVALID_INTERMEDIATE_STATE);
        EXPECT_FALSE(app.killSent_);
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
    EXPECT_TRUE(child.IsUntouched());
    for (const int elapsed : {20, 21, 500}) {
        EXPECT_EQ(app.CheckState(START + milliseconds(elapsed)), TERMINATING);
        EXPECT_EQ(app.reportType_, INVALID_INTERMEDIATE_STATE);
        EXPECT_TRUE(app.killSent_);
    }
    const std::vector<LogLine> lines = {
        {6, "PROCMGR : term timeout and forceTerm is true, so kill appName=svc, pid=" + id +
                ",TERMINATING to TERMINATED"},
        {6, "PROCMGR : SendSignal: 9 to app=svc, pid=" + id},
        {6, "PROCMGR : SendSignal: Successfully kill appName=svc, pid=" + id},
    };
    EXPECT_EQ(LogCapture::Lines(), lines);
    app.SetExitStatus(child.Reap());
    LogCapture::Clear();
    EXPECT_EQ(app.CheckState(START + nanoseconds(507'999'999)), TERMINATED);
    EXPECT_EQ(app.reportType_, TERMINATED_NORMAL_EXIT);
    EXPECT_FALSE(app.killSent_);
    const std::vector<LogLine> end = {
        {6, "PROCMGR : TERMINATING to TERMINATED. (appName=svc,pid=" + id + ",cost=507 ms)"},
        {4, "PROCMGR : Process=svc, pid=" + id + " terminated by calling Kill(), signal=9"},
    };
    EXPECT_EQ(LogCapture::Lines(), end);
}

TEST_F(StateMachineTest, ATerminateWithoutForceGivesUp) {
    WaitingChild child;
    GeneralAppInfo app = Ending(child.Pid(), TERMINATING, 0, false);
    EXPECT_EQ(app.CheckState(START), RUNNING);
    EXPECT_EQ(app.reportType_, RUNNING_ABNORMAL_TERM_TIMEOUT);
    EXPECT_FALSE(app.killSent_);
    EXPECT_EQ(
        LogCapture::Lines(),
        (std::vector{LogLine{
            6, "PROCMGR : term timeout and forceTerm is false, so not kill appName=svc, pid=" +
                   std::to_string(child.Pid()) + "TERMINATING to RUNNING"}}));
    EXPECT_TRUE(child.IsUntouched());
}

TEST_F(StateMachineTest, ARestartKillsWhateverForceTermSaysAndStartsAgain) {
    WaitingChild child;
    const pid_t oldPid = child.Pid();
    GeneralAppInfo app = Ending(oldPid, RESTARTING, 20, false);
    app.savedForceTerm_ = true;
    for (const int elapsed : {20, 40}) {
        EXPECT_EQ(app.CheckState(START + milliseconds(elapsed)), RESTARTING);
        EXPECT_TRUE(app.killSent_);
        EXPECT_EQ(app.reportType_, INVALID_INTERMEDIATE_STATE);
    }
    EXPECT_EQ(LogCapture::Count(6, "PROCMGR : SendSignal: Successfully kill appName=svc, pid=" +
                                       std::to_string(oldPid)),
              1U);
    app.SetExitStatus(child.Reap());

    const SteadyTime before = std::chrono::steady_clock::now();
    EXPECT_EQ(app.CheckState(START + milliseconds(50)), RESTARTING);
    EXPECT_EQ(app.reportType_, INVALID_INTERMEDIATE_STATE);
    EXPECT_TRUE(app.IsRestartDue());
    EXPECT_EQ(app.FinishRestart(StartNow(app, launcher_)), RESTARTING);
    EXPECT_FALSE(app.IsRestartDue());
    EXPECT_FALSE(app.killSent_);
    EXPECT_TRUE(app.restartStarted_);
    EXPECT_TRUE(app.forceTerm_);
    EXPECT_FALSE(app.exitStatusSet_);
    EXPECT_GE(app.startTime_, before);
    ASSERT_GT(app.pid_, 0);
    EXPECT_NE(app.pid_, oldPid);

    EXPECT_EQ(app.CheckState(START + milliseconds(60)), RUNNING);
    EXPECT_EQ(app.reportType_, RUNNING_NORMAL_RESTART);
    EXPECT_EQ(waitpid(app.pid_, nullptr, 0), app.pid_);
}

TEST_F(StateMachineTest, RestartLimiter) {
    BaseAppInfo app(Manifest(SomeService()));
    app.restartPolicy_ = "on-failure";
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(app.NeedRestart(START + std::chrono::seconds(i)));
    }
    // Just past the period the oldest makes room...
    const SteadyTime sixth = START + nanoseconds(60'001'000'000);
    EXPECT_TRUE(app.NeedRestart(sixth));
    ASSERT_EQ(app.restartTimes_.size(), 5U);
    EXPECT_EQ(app.restartTimes_.front(), START + std::chrono::seconds(1));
    EXPECT_EQ(app.restartTimes_.back(), sixth);
    EXPECT_TRUE(LogCapture::Lines().empty());
    // ...and at its very end it does not.
    EXPECT_FALSE(app.NeedRestart(START + std::chrono::seconds(1) + nanoseconds(60'000'999'999)));
    EXPECT_EQ(app.restartPolicy_, "no");
    EXPECT_EQ(
        LogCapture::Lines(),
        (std::vector{LogLine{3, "PROCMGR : Process=svc has restart 5 times in recent 60000 ms."}}));
    EXPECT_FALSE(app.NeedRestart(START + std::chrono::hours(10)));
    EXPECT_EQ(LogCapture::Lines().size(), 1U);
    app.restartPolicy_ = "on-forever";
    EXPECT_TRUE(app.NeedRestart(START)) << "has no limit";
    app.restartPolicy_ = "on-until-succeed";
    EXPECT_FALSE(app.NeedRestart(START + std::chrono::hours(20)));
}

}  // namespace
}  // namespace ProcMgr::App
