// Why an application does not run and what comes next.
#include "status/explanation.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>

#include "tests/status/snapshot_support.h"

namespace ProcMgr::Status {
namespace {

using App::ChangeReason;
using App::StartRefusal;

constexpr int32_t EXIT_3 = 3 << 8;

// A service that waits for the dependencies.
Entry Waiting(const std::set<std::string>& depends) {
    ManifestData data = Manifest("svc");
    data.depends = depends;
    Entry entry = Service(data, INITSTATE);
    entry.view.app.isInList = false;
    entry.view.verdict = StartVerdict::WAITING;
    return entry;
}

// A service whose process has ended and whose record has been removed.
Entry Ended(const std::string& policy, std::optional<ChangeReason> cause = std::nullopt) {
    ManifestData data = Manifest("svc");
    data.restart = policy;
    Entry entry = Service(data, TERMINATED);
    entry.view.app.isInList = false;
    entry.view.app.history.lastExit = {9, EXIT_3, At(1), cause};
    return entry;
}

Entry With(Entry entry, const std::function<void(ServiceView&)>& change) {
    change(entry.view);
    return entry;
}
void MayRestart(ServiceView& view) {
    view.app.isInList = view.app.mayRestart = true;
}
void Refused(ServiceView& view) {
    view.verdict = StartVerdict::RELEASED;
    view.app.history.refusal = StartRefusal::MISSING;
}
Entry Named(const std::string& name, Entry entry) {
    auto facts = *entry.view.app.facts;
    facts.name = name;
    entry.view.app.facts = std::make_shared<const App::AppFacts>(facts);
    return entry;
}

// The explanation of `entry` among other services: "runs" runs, "reporter" has not reported yet,
// "over" has ended for good, "dies" will be restarted, "refused" could not be started, "hopeless"
// waits for it, "w0" to "w9" for services that will run.
std::string Explain(const Entry& entry, bool isService = true, bool isStopping = false) {
    Snapshot snapshot;
    snapshot.clock.steady = At(2'000'000'000);
    snapshot.phases = {{isStopping ? Phase::STOPPING : Phase::BASE_SERVICES, At(1)}};
    snapshot.services = {Service(Manifest("runs"), RUNNING, 5),
                         Service(Manifest("reporter", true), STARTING, 6),
                         Named("over", Ended("no")),
                         Named("dies", With(Ended("on-failure"), MayRestart)),
                         Named("refused", With(Waiting({}), Refused)),
                         Named("hopeless", Waiting({"runs", "refused"})),
                         entry};
    for (const char number : std::string("0123456789")) {
        snapshot.services.push_back(Named({'w', number}, Waiting({"reporter", "dies"})));
    }
    const Explanation explanation(snapshot);
    return isService
               ? explanation.WhyService(entry) + " | " + explanation.NextOfService(entry)
               : explanation.WhyApplication(entry) + " | " + explanation.NextOfApplication(entry);
}

TEST(Explanation, OfServicesThatHaveNotBeenStarted) {
    EXPECT_EQ(Explain(Waiting({"runs", "reporter"})),
              "waits for reporter | will be started when reporter reports RUNNING");
    EXPECT_EQ(Explain(Waiting({"reporter", "w0"})),
              "waits for reporter, w0 | will be started when reporter, w0 run");
    EXPECT_EQ(Explain(Waiting({"w0", "w1", "w2", "w3", "w4", "w5", "w6", "w7", "w8", "w9"})),
              "waits for w0, w1, w2, w3, w4, w5, w6, w7 and 2 more | "
              "will be started when w0, w1, w2, w3, w4, w5, w6, w7 and 2 more run");
    EXPECT_EQ(Explain(Waiting({"runs"})),
              "waits for its turn | will be started in its turn, after reporter reports RUNNING");
    EXPECT_EQ(Explain(Waiting({"reporter", "absent"})),
              "waits for its turn; absent, which it depends on, is not known | "
              "nothing, it will be refused in its turn: absent does not run");
    for (const std::string lost : {"over", "refused", "hopeless"}) {
        EXPECT_EQ(Explain(Waiting({"reporter", lost})),
                  "waits for its turn; " + lost +
                      ", which it depends on, will not run | "
                      "nothing, it will be refused in its turn: " +
                      lost + " does not run");
    }
    const auto verdict = [](StartVerdict value) {
        return With(Waiting({"b"}), [value](ServiceView& view) {
            view.verdict = value;
            view.blocker = "b";
            view.app.history.refusal = StartRefusal::MISSING;
        });
    };
    EXPECT_EQ(Explain(verdict(StartVerdict::DEPENDENCY)),
              "b, which it depends on, does not run | nothing, it will not be started");
    EXPECT_EQ(Explain(verdict(StartVerdict::IN_CYCLE)),
              "is in a dependency cycle | nothing, it will not be started");
    EXPECT_EQ(Explain(verdict(StartVerdict::EXCLUDED)),
              "excluded by the boot command line | nothing, it will not be started");
    EXPECT_EQ(Explain(verdict(StartVerdict::RELEASED)),
              "could not be started: there is no program /bin/svc | "
              "nothing, the first start is not repeated");
    EXPECT_EQ(Explain(verdict(StartVerdict::ABANDONED), true, true),
              "start-up was stopped before its turn | nothing, the daemon stops");
}

TEST(Explanation, OfServicesThatHaveEnded) {
    EXPECT_EQ(Explain(Ended("no")), "exited with status 3 | nothing, the policy is no");
    EXPECT_EQ(Explain(Ended("no", ChangeReason::REPORTED)),
              "has ended, as it had announced | nothing, the policy is no");
    EXPECT_EQ(Explain(Ended("on-failure")),
              "exited with status 3 | "
              "nothing, the policy on-failure gave up after five attempts within a minute");
    EXPECT_EQ(Explain(With(Ended("on-forever"), MayRestart)),
              "exited with status 3 | will be restarted within 30 ms");
    EXPECT_EQ(Explain(With(Ended("on-forever"),
                           [](ServiceView& view) {
                               MayRestart(view);
                               view.app.history.lastExit.status = SIGKILL;
                               view.app.isLaunching = true;
                           })),
              "killed by signal 9 (SIGKILL) | is being restarted");
    EXPECT_EQ(Explain(With(Ended("no", ChangeReason::TERMINATION), MayRestart), true, true),
              "was stopped on request | nothing, the daemon stops");
}

TEST(Explanation, OfProcessesThatHaveNotExecutedTheirProgram) {
    using enum App::ChildFault::Step;
    const auto why = [](App::ChildFault::Step step, int32_t error) {
        return Explain(With(Ended("no"), [&](ServiceView& view) {
            view.app.history.lastExit.fault = {step, error};
        }));
    };
    const std::string next = " | nothing, the policy is no";
    EXPECT_EQ(why(EXECUTE, ENOEXEC), "could not be executed: Exec format error (errno 8)" + next);
    EXPECT_EQ(why(SETGID, EPERM),
              "set-up failed: setgid: Operation not permitted (errno 1)" + next);
    EXPECT_EQ(why(NO_USER, 0), "set-up failed: the user database does not have user 0" + next);
}

TEST(Explanation, OfApplicationsWithoutAProcess) {
    const auto explain = [](Entry entry, const std::function<void(App::AppView&)>& change) {
        change(entry.view.app);
        return Explain(entry, false);
    };
    EXPECT_EQ(explain(Ended("no"), [](auto&) {}),
              "exited with status 3 | nothing, its owner decides");
    EXPECT_EQ(explain(Waiting({}), [](auto&) {}),
              "its start has not been requested | nothing, its owner decides");
    EXPECT_EQ(explain(Waiting({}),
                      [](App::AppView& app) { app.history.refusal = StartRefusal::NO_USER; }),
              "could not be started: the user database does not have user 0 | "
              "nothing, its owner decides");
    EXPECT_EQ(
        explain(Waiting({}), [](App::AppView& app) { app.isInList = app.isLaunching = true; }),
        "is being started | is being started");
}

TEST(Explanation, OfProcessesThatChange) {
    EXPECT_EQ(Explain(Service(Manifest("svc", true), STARTING, 7)),
              "waits for its own report | will be RUNNING when it reports");
    const auto ending = [](ProcessState state, ChangeReason reason, int64_t since) {
        Entry entry = Service(Manifest("svc"), state, 7);
        entry.view.app.history.changed = At(since);
        entry.view.app.history.changeReason = reason;
        entry.view.app.termTimeout = 1500;
        return entry;
    };
    const Entry stopped = ending(TERMINATING, ChangeReason::TERMINATION, 1'000'000'000);
    EXPECT_EQ(Explain(stopped, true, true),
              "is being stopped on request | SIGKILL in 500 ms unless it ends");
    EXPECT_EQ(Explain(ending(TERMINATING, ChangeReason::TERMINATION, 1), true, true),
              "is being stopped on request | nothing, SIGKILL has been sent");
    EXPECT_EQ(Explain(ending(TERMINATING, ChangeReason::REPORTED, 1)),
              "has reported that it ends | nothing until it ends");
    EXPECT_EQ(Explain(With(stopped, [](ServiceView& view) { view.app.isKilled = false; }), false),
              "is being stopped on request | will count as RUNNING again in 500 ms unless it ends");
    EXPECT_EQ(Explain(ending(RESTARTING, ChangeReason::RESTART, 1'000'000'000), false),
              "is being restarted on request | "
              "SIGKILL in 500 ms unless it ends, then its new process will be started");
}

}  // namespace
}  // namespace ProcMgr::Status
