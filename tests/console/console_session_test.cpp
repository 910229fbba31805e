// The course of a request: which lines its client gets, and when it ends.
#include "console/console_session.h"

#include <gtest/gtest.h>

#include "message/enum_names.h"

namespace ProcMgr::Console {
namespace {

using namespace std::chrono_literals;

constexpr ConsoleSession::Time BEGIN{};
constexpr bool NEXT = true;  // the daemon's next answer is for the session

ConsoleSession Start(Command command, std::vector<std::string> names, bool isWaiting = true) {
    Request request{.command = command, .names = std::move(names), .isWaiting = isWaiting};
    request.timeout = 5s;
    return {request, BEGIN};
}

Message::AppStateInfo Report(const std::string& name, ReportAppStateType type, uint32_t pid = 7) {
    return {name, pid, 0, type, 0};
}

std::string Line(const std::string& name, const std::string& type, uint32_t pid,
                 const std::string& text, bool isFinal, bool isOk, uint32_t result = 0) {
    const auto word = [](bool value) { return value ? "true" : "false"; };
    return R"({"event":"report","name":")" + name + R"(","type":")" + type + R"(","result":)" +
           std::to_string(result) + R"(,"pid":)" + std::to_string(pid) + R"(,"text":")" + text +
           R"(","final":)" + word(isFinal) + R"(,"ok":)" + word(isOk) + "}\n";
}
std::string Done() {
    return "{\"event\":\"done\",\"ok\":true}\n";
}
std::string Done(const std::string& code, const std::string& error) {
    return R"({"event":"done","ok":false,"code":")" + code + R"(","error":")" + error + "\"}\n";
}

TEST(ConsoleSession, AStartIsOverWhenEachApplicationIsDecided) {
    ConsoleSession session = Start(Command::START, {"a", "b"});
    EXPECT_EQ(session.OnSent(), "{\"event\":\"sent\"}\n");
    EXPECT_EQ(session.OnReport(Report("other", RUNNING_NORMAL_START), NEXT), "");
    EXPECT_EQ(session.OnAnswer({{"a", 0}, {"b", 0}}, BEGIN), "");
    EXPECT_EQ(session.OnReport(Report("a", RUNNING_NORMAL_START), !NEXT),
              Line("a", "RUNNING_NORMAL_START", 7, "runs", true, true));
    EXPECT_EQ(session.OnReport(Report("a", TERMINATED_ABNORMAL_EXIT), !NEXT), "") << "decided";
    EXPECT_FALSE(session.IsDone());
    EXPECT_EQ(session.OnReport(Report("b", TERMINATED_ABNORMAL_EXIT), !NEXT),
              Line("b", "TERMINATED_ABNORMAL_EXIT", 7,
                   "did not start, or has ended: see the log of the daemon", true, false) +
                  Done("failed", "failed: b"));
    EXPECT_TRUE(session.IsDone());
    EXPECT_EQ(session.OnTime(BEGIN + 1h), "");
}

TEST(ConsoleSession, ARefusalIsForTheRequestThatIsHandled) {
    ConsoleSession first = Start(Command::STOP, {"a"});
    EXPECT_EQ(first.OnAnswer({{"a", 0}}, BEGIN), "");
    EXPECT_EQ(first.OnReport(Report("a", INVALID_INTERMEDIATE_STATE), !NEXT),
              Line("a", "INVALID_INTERMEDIATE_STATE", 7, "is starting or stopping", false, false))
        << "the answer to another client";
    EXPECT_EQ(first.OnReport(Report("a", TERMINATED_NORMAL_EXIT), NEXT),
              Line("a", "TERMINATED_NORMAL_EXIT", 7, "stopped", true, true) + Done());
    ConsoleSession second = Start(Command::STOP, {"a"});
    EXPECT_EQ(second.OnReport(Report("a", INVALID_INTERMEDIATE_STATE), NEXT),
              Line("a", "INVALID_INTERMEDIATE_STATE", 7,
                   "refused: it is being started, stopped or restarted", true, false) +
                  Done("failed", "failed: a"));
}

TEST(ConsoleSession, StopsAndRestarts) {
    ConsoleSession idle = Start(Command::STOP, {"a"});
    EXPECT_EQ(
        idle.OnReport(Report("a", TERMINATED_NORMAL_EXIT, UINT32_MAX), NEXT),
        Line("a", "TERMINATED_NORMAL_EXIT", 0, "not a running application", true, true) + Done());
    ConsoleSession stubborn = Start(Command::STOP, {"a"});
    EXPECT_EQ(stubborn.OnReport(Report("a", RUNNING_ABNORMAL_TERM_TIMEOUT), !NEXT),
              Line("a", "RUNNING_ABNORMAL_TERM_TIMEOUT", 7,
                   "still runs: it did not end within its term_timeout", true, false) +
                  Done("failed", "failed: a"));
    ConsoleSession restart = Start(Command::RESTART, {"a"});
    EXPECT_EQ(restart.OnReport(Report("a", RUNNING_NORMAL_START), !NEXT),
              Line("a", "RUNNING_NORMAL_START", 7, "runs", false, false))
        << "a report about the process before";
    EXPECT_EQ(restart.OnReport(Report("a", RUNNING_NORMAL_RESTART, 8), !NEXT),
              Line("a", "RUNNING_NORMAL_RESTART", 8, "restarted", true, true) + Done());
}

TEST(ConsoleSession, TheTimeoutNamesWhatIsOpen) {
    ConsoleSession session = Start(Command::RESTART, {"a", "b"});
    session.OnSent();
    session.OnAnswer({{"a", 0}, {"b", 0}}, BEGIN);
    session.OnReport(Report("a", RUNNING_NORMAL_RESTART), !NEXT);
    EXPECT_EQ(session.GetDeadline(), BEGIN + 5s);
    EXPECT_EQ(session.OnTime(BEGIN + 4999ms), "");
    EXPECT_EQ(session.OnTime(BEGIN + 5s), Done("timeout", "b: no result within 5000 ms"));
    ConsoleSession unsent = Start(Command::STOP, {"a"});
    EXPECT_EQ(unsent.OnTime(BEGIN + 5s), Done("no-daemon", "the daemon does not take the request"));
}

TEST(ConsoleSession, AnUnknownApplicationIsNotWaitedFor) {
    // The daemon reports nothing about a start of a name that it does not know.
    ConsoleSession session = Start(Command::START, {"a", "b"});
    session.OnSent();
    EXPECT_EQ(session.OnAnswer({{"a", 1}, {"b", 0}}, BEGIN + 100ms), "");
    EXPECT_EQ(session.GetDeadline(), BEGIN + 1100ms);
    EXPECT_EQ(session.OnTime(BEGIN + 1100ms),
              Line("a", "GONE", 0, "no such application, or it has ended at once", true, false));
    EXPECT_EQ(session.GetDeadline(), BEGIN + 5s);
    EXPECT_EQ(
        session.OnReport(Report("b", RUNNING_NORMAL_START), !NEXT),
        Line("b", "RUNNING_NORMAL_START", 7, "runs", true, true) + Done("failed", "failed: a"));
}

TEST(ConsoleSession, AClientThatDoesNotWaitIsAnsweredWhenTheDaemonHasHandledTheRequest) {
    ConsoleSession session = Start(Command::STOP, {"a", "b"}, false);
    session.OnSent();
    session.OnReport(Report("b", INVALID_INTERMEDIATE_STATE), NEXT);
    EXPECT_EQ(
        session.OnAnswer({{"a", 0}, {"b", 0}}, BEGIN),
        Line("a", "REQUESTED", 0, "stop requested", true, true) + Done("failed", "failed: b"));
    ConsoleSession late = Start(Command::START, {"a"}, false);
    late.OnSent();
    EXPECT_EQ(late.OnTime(BEGIN + 1s),
              Line("a", "REQUESTED", 0, "start requested", true, true) + Done());
}

TEST(ConsoleSession, QueriesAndFiles) {
    ConsoleSession query = Start(Command::QUERY, {"b", "a", "c"}, false);
    query.OnSent();
    EXPECT_EQ(query.OnTime(BEGIN + 2s), "") << "an answer is worth the whole time-out";
    EXPECT_EQ(query.OnAnswer({{"a", 0}, {"b", 1}, {"c", 2}}, BEGIN),
              Line("b", "GONE", 0, "not a running application", true, false, 1) +
                  Line("a", "ALIVE", 0, "runs", true, true) +
                  Line("c", "STOPPED", 0, "is stopped by a signal", true, false, 2) +
                  Done("failed", "not running: b, c"));
    ConsoleSession load = Start(Command::LOAD, {});
    load.OnSent();
    EXPECT_EQ(load.OnAnswer({{"pm-console", 1}}, BEGIN), Done());
    ConsoleSession slow = Start(Command::RELOAD, {});
    slow.OnSent();
    EXPECT_EQ(slow.OnTime(BEGIN + 5s), Done("timeout", "the daemon has not answered in time"));
}

}  // namespace
}  // namespace ProcMgr::Console
