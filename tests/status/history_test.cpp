// What the daemon remembers for the documents: changes, restarts, exits, the plan of the start-up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include "app/history_table.h"
#include "baseservice/boot_plan.h"
#include "tests/status/snapshot_support.h"

namespace ProcMgr::Status {
namespace {

using App::AppHistory;
using App::AppKind;
using App::ChangeLog;
using App::ChangeReason;
using App::StateChange;
using testing::ElementsAre;

constexpr int64_t SECOND = 1'000'000'000;
constexpr StateChange STARTED{INITSTATE, STARTING, ChangeReason::STARTED};
constexpr StateChange FOUND{STARTING, RUNNING, ChangeReason::FOUND_RUNNING};

TEST(ChangeLogTest, KeepsTheLastChangesAndCutsNames) {
    ChangeLog log;
    log.Add(AppKind::BASE, "before", 1, STARTED, 0);  // without memory nothing is stored
    log.Open();
    EXPECT_TRUE(log.GetSince(0).empty());
    const std::string longName(200, 'n');
    for (int pid = 1; pid <= 600; ++pid) {
        log.Add(AppKind::GENERAL, longName, pid, FOUND, 0);
    }
    const auto all = log.GetSince(0);
    ASSERT_EQ(all.size(), ChangeLog::SIZE);
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].number, 89 + i);
        EXPECT_EQ(all[i].pid, static_cast<int32_t>(89 + i));
        EXPECT_TRUE(i == 0 || all[i].at >= all[i - 1].at);
    }
    EXPECT_EQ(all[0].GetName(), longName.substr(0, ChangeLog::NAME_SIZE));
    EXPECT_EQ(log.GetSince(599).size(), 1U);
    for (const uint64_t number : {uint64_t{600}, std::numeric_limits<uint64_t>::max()}) {
        EXPECT_TRUE(log.GetSince(number).empty());
    }
}

TEST(RestartWindowTest, CountsAMinuteFromTheFirstSecondsOfTheMachineOn) {
    App::RestartWindow window;
    EXPECT_EQ(window.Count(At(5 * SECOND)), 0U);
    for (int64_t second = 5; second < 205; ++second) {
        window.Add(At(second * SECOND));
        EXPECT_EQ(window.Count(At(second * SECOND)), std::min<int64_t>(second - 4, 60));
    }
    EXPECT_EQ(window.Count(At(234 * SECOND)), 30U);
    EXPECT_EQ(window.Count(At(264 * SECOND)), 0U);
    window.Add(At(1000 * SECOND));
    EXPECT_EQ(window.Count(At(1000 * SECOND)), 1U) << "older counts are dropped";
    for (int i = 0; i < 300; ++i) {
        window.Add(At(1001 * SECOND));
    }
    EXPECT_EQ(window.Count(At(1001 * SECOND)), 256U) << "255 in a second at most";
}

TEST(AppHistoryTest, RemembersTheFirstStartAndTheLastExit) {
    ChangeLog log;
    log.Open();
    AppHistory history(AppKind::BASE, Service(Manifest("svc"), INITSTATE).view.app.facts, log);
    history.NoteRefusal(App::StartRefusal::MISSING);
    EXPECT_EQ(history.GetValues().refusal, App::StartRefusal::MISSING);
    history.NoteStart(At(10));
    history.NoteChange(STARTED, 1, 0);
    history.NoteChange(FOUND, 1, 0);
    history.NoteReady(At(11));
    const SteadyTime firstRunning = history.GetValues().running;
    // A repeated report is no change.
    history.NoteChange({RUNNING, RUNNING, ChangeReason::REPORTED}, 1, 0);
    history.NoteExit(1, SIGKILL, At(12));
    history.NoteChange({RUNNING, TERMINATED, ChangeReason::EXITED}, 1, SIGKILL);
    EXPECT_FALSE(history.GetValues().lastExit.cause);
    history.NoteStart(At(20));
    history.NoteChange({TERMINATED, STARTING, ChangeReason::STARTED}, 2, SIGKILL);
    EXPECT_EQ(history.GetValues().running, SteadyTime());
    EXPECT_EQ(history.GetValues().ready, SteadyTime());
    EXPECT_EQ(history.GetValues().refusal, App::StartRefusal::NONE);
    EXPECT_FALSE(history.GetValues().HasFailedStart());
    history.NoteChange(FOUND, 2, 0);
    history.NoteChange({RUNNING, TERMINATING, ChangeReason::REPORTED}, 2, 0);
    history.NoteExit(2, 0, At(22));
    const App::HistoryValues values = history.GetValues();
    EXPECT_EQ(values.starts, 2U);
    EXPECT_EQ(values.firstStarted, At(10));
    EXPECT_EQ(values.started, At(20));
    EXPECT_EQ(values.firstRunning, firstRunning);
    EXPECT_GT(values.running, firstRunning);
    EXPECT_EQ(values.lastExit.pid, 2);
    EXPECT_EQ(values.lastExit.cause, ChangeReason::REPORTED);
    EXPECT_EQ(log.GetSince(0).size(), 6U);
    EXPECT_EQ(log.GetCounters().starts, 2U);
    EXPECT_EQ(log.GetCounters().startFailures, 1U);
    EXPECT_EQ(log.GetCounters().exits, 2U);
}

// As the launcher does it, with a child that shares the memory.
TEST(AppHistoryTest, KeepsWhyAProcessHasNotExecutedItsProgram) {
    ChangeLog log;
    auto history = std::make_shared<AppHistory>(
        AppKind::BASE, Service(Manifest("svc"), INITSTATE).view.app.facts, log);
    auto note = AppHistory::TakeFaultNote(history);
    note->Write(App::ChildFault::Step::EXECUTE, ENOEXEC);  // it may be faster than its parent
    history->NoteStart(At(1));
    history->NoteExit(7, 1 << 8, At(2));
    const App::ChildFault fault = history->GetValues().lastExit.fault;
    EXPECT_EQ(fault.step, App::ChildFault::Step::EXECUTE);
    EXPECT_EQ(fault.error, ENOEXEC);
    EXPECT_TRUE(history->GetValues().HasFailedStart());
    note = AppHistory::TakeFaultNote(history);
    history->NoteStart(At(3));
    EXPECT_FALSE(history->GetValues().HasFailedStart()) << "the next process";
    history->NoteExit(8, 1 << 8, At(4));
    EXPECT_FALSE(history->GetValues().HasFailedStart());
    const std::weak_ptr<AppHistory> kept = history;
    history = nullptr;
    EXPECT_FALSE(kept.expired()) << "a process may still use its note";
}

TEST(HistoryTableTest, KeepsAHistoryOverRecordsAndIsBounded) {
    ChangeLog log;
    App::HistoryTable table(log);
    const auto take = [&](const std::string& name, const std::string& exec) {
        ManifestData data = Manifest(name);
        data.bin = exec;
        return table.Take(
            App::AppSpec(ApplicationManifest(std::make_shared<ManifestData>(data)), name), "owner");
    };
    take("app", "/one")->NoteStart(At(1));
    const auto again = take("app", "/two");
    EXPECT_EQ(again->GetValues().starts, 1U);
    EXPECT_EQ(again->GetFacts()->execPath, "/two");
    for (size_t i = 0; i < App::HistoryTable::SIZE; ++i) {
        take("other" + std::to_string(i), "/x")->NoteWaiting(At(static_cast<int64_t>(i)));
    }
    EXPECT_EQ(table.GetAll().size(), App::HistoryTable::SIZE / 2 + 1);
    EXPECT_EQ(table.GetAll().at("app"), again) << "a history with a record stays";
    EXPECT_FALSE(table.GetAll().contains("other0"));
    EXPECT_TRUE(table.GetAll().contains("other1023"));
}

TEST(BootPlanTest, TellsCyclesFromWhatWaitsForThem) {
    ChangeLog log;
    BootPlan plan;
    const auto add = [&](const std::string& name, const std::set<std::string>& depends) {
        ManifestData data = Manifest(name);
        data.depends = depends;
        plan.Add(std::make_shared<AppHistory>(AppKind::BASE,
                                              Service(data, INITSTATE).view.app.facts, log),
                 StartVerdict::WAITING);
    };
    add("runs", {});
    add("a", {"b", "runs"});
    add("b", {"a"});
    add("self", {"self"});
    add("after", {"between"});
    add("between", {"a"});
    add("a", {});  // the second of the name
    ASSERT_EQ(plan.GetSize(), 6U);
    plan.SettleBlocked({"a", "b", "self", "after", "between", "unknown"});
    std::vector<StartVerdict> verdicts;
    for (size_t i = 0; i < plan.GetSize(); ++i) {
        verdicts.push_back(plan.Get(i).verdict);
    }
    using enum StartVerdict;
    EXPECT_THAT(verdicts,
                ElementsAre(WAITING, IN_CYCLE, IN_CYCLE, IN_CYCLE, DEPENDENCY, DEPENDENCY));
    EXPECT_EQ(plan.Find("after")->blocker, "between");
    EXPECT_EQ(plan.Find("absent"), nullptr);
}

}  // namespace
}  // namespace ProcMgr::Status
