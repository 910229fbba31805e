// pmctl's side: what people see of the lines of the console, and the requests of command lines.
#include "pmctl/control_view.h"

#include <gtest/gtest.h>

#include "pmctl/control.h"

namespace ProcMgr::Pmctl {
namespace {

using Console::Command;
using namespace std::chrono_literals;

// "CODE TEXT" of the error.
template <typename Call>
std::string ErrorOf(Call call) {
    try {
        call();
    } catch (const CommandError& error) {
        return std::to_string(error.GetCode()) + " " + error.what();
    }
    return {};
}

TEST(ControlView, TextProgressAndExitCode) {
    const Console::Request request{.command = Command::STOP, .names = {"a", "b"}};
    ControlView view(request);
    EXPECT_EQ(view.Take(R"({"event":"sent"})"), "");
    EXPECT_EQ(view.Progress(1250ms), "a, b: stopping ... 1.2 s");
    const auto take = [&](const std::string& type, const std::string& isFinal) {
        return view.Take(R"({"event":"report","name":"b","type":")" + type +
                         R"(","result":0,"pid":9,"text":"T","final":)" + isFinal + ",\"ok\":true}");
    };
    EXPECT_EQ(take("RUNNING_NORMAL_START", "false"), "b: T, pid 9\n");
    EXPECT_EQ(take("TERMINATED_NORMAL_EXIT", "true"), "b: T\n") << "the pid of no process";
    EXPECT_EQ(view.Take(R"({"event":"report","name":"x\u001b","type":"","pid":0,"text":"\u009b\n",)"
                        R"("final":false})"),
              "x\\x1b: \\xc2\\x9b\\x0a\n");
    EXPECT_EQ(view.Progress(12s), "a: stopping ... 12.0 s");
    EXPECT_EQ(view.Take(R"({"event":"later"})"), "") << "of a newer console";
    EXPECT_FALSE(view.IsDone());
    EXPECT_EQ(view.Take(R"({"event":"done","ok":false,"code":"failed","error":"failed: a"})"), "");
    EXPECT_TRUE(view.IsDone());
    EXPECT_EQ(view.GetExitCode(), EXIT_NO);
}

TEST(ControlView, Errors) {
    const Console::Request request{.command = Command::STOP, .names = {"a"}};
    const std::pair<const char*, int> codes[] = {
        {"timeout", 6}, {"no-daemon", 3}, {"busy", 3}, {"permission", 4}, {"request", 2}};
    for (const auto& [code, exitCode] : codes) {
        ControlView view(request);
        const std::string line =
            std::string(R"({"event":"done","ok":false,"error":"why","code":")") + code + "\"}";
        EXPECT_EQ(ErrorOf([&] { view.Take(line); }), std::to_string(exitCode) + " why");
    }
    for (const char* line : {"", "{", "7", "{}", R"({"event":7})", R"({"event":"report"})",
                             R"({"event":"done","ok":false})", R"({"event":"done","ok":1})"}) {
        ControlView view(request);
        EXPECT_EQ(ErrorOf([&] { view.Take(line); }),
                  "5 an answer of pm-console that this pmctl does not understand")
            << line;
    }
}

TEST(ControlRequest, WhatTheCommandLineSays) {
    ControlOptions options{.file = "dir/../x.yaml", .match = {"slot=1", "k=a=b"}, .wait = "1.5"};
    const Console::Request load = MakeRequest(Command::LOAD, options);
    EXPECT_TRUE(load.file.path.starts_with('/') && load.file.path.ends_with("/x.yaml") &&
                !load.file.path.ends_with("dir/../x.yaml"));
    EXPECT_EQ(load.file.matchData,
              (std::map<std::string, std::string>{{"slot", "1"}, {"k", "a=b"}}));
    EXPECT_TRUE(load.isWaiting);
    EXPECT_EQ(load.timeout, 1500ms);
    const auto errorOf = [](Command command, const ControlOptions& wrong) {
        return ErrorOf([&] { MakeRequest(command, wrong); });
    };
    EXPECT_EQ(errorOf(Command::LOAD, {.file = "/x", .match = {"slot"}}),
              "2 \"slot\" is not KEY=VALUE");
    EXPECT_EQ(errorOf(Command::STOP, {.names = {"a/b"}}),
              "2 \"a/b\" cannot be the name of an application");
    for (const char* wait : {"x", "0", "-1", "5x", "nan", "1e9", "3601"}) {
        EXPECT_EQ(errorOf(Command::STOP, {.names = {"a"}, .wait = wait}),
                  std::string("2 --wait=") + wait + ": not a number of seconds from 0.001 to 3600");
    }
}

}  // namespace
}  // namespace ProcMgr::Pmctl
