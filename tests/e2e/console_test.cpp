// pmctl and pm-console with the daemon: what people type, see and get back.
#include <fcntl.h>
#include <grp.h>

#include <regex>

#include "tests/console/stream_client.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using ProcMgr::Tests::StreamClient;
using testing::EndsWith;
using testing::HasSubstr;

constexpr const char* SOCKET = "/run/process-manager/console.sock";
constexpr gid_t EXTRA = 2000;  // the group of the console
constexpr uid_t SVC = 1000;
constexpr int HOLDERS = 16;

struct Identity {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups = {};
};

std::string Line(const std::string& command, const std::string& name) {
    return R"({"version":1,"command":")" + command + R"(","names":[")" + name +
           R"("],"wait":true})" + "\n";
}

class ConsoleE2e : public E2e {
protected:
    void SetUp() override {
        E2e::SetUp();
        if (!IsSkipped()) {
            std::filesystem::copy_file(PMCTL, In("pmctl"));
        }
    }

    // The console as it is shipped, the owner "vintor", and applications.
    void BootConsole() {
        std::string manifest = ReadFile(PM_CONSOLE_MANIFEST);
        manifest = std::regex_replace(manifest, std::regex("/usr/bin/pm-console"), PM_CONSOLE);
        manifest = std::regex_replace(manifest, std::regex("\n    args: .*"),
                                      "\n    args: [--group, extra]");
        WriteFile(In("pm-console.yaml"), manifest);
        Boot(Owner("vintor") + "include: [pm-console.yaml]\napplications:\n" + App("web") +
             App("db") + "  - {name: absent, bin: /no/such/program}\n" +
             "  - {name: dynamic, dynamic: true, bin: /bin/sleep, args: ['match(.*)']}\n" +
             Holders());
        ASSERT_TRUE(vintor_.Attach());
        ASSERT_TRUE(WaitForLine(START_UP_END));
    }
    // Applications that end when they have been told to and the file "go" exists.
    static std::string Holders() {
        WriteFile(In("hold"), "#!/bin/sh\ntrap '' TERM\ntouch " + In("$1") + "\nuntil [ -e " +
                                  In("go") + " ]; do sleep 0.05; done\n");
        std::string entries;
        for (int i = 0; i < HOLDERS; ++i) {
            const std::string name = "hold" + std::to_string(i);
            entries += "  - {name: " + name + ", bin: /bin/sh, args: [" + In("hold") + ", " + name +
                       ".up], term_timeout: 60000}\n";
        }
        return entries;
    }

    // Runs pmctl. "EXIT|OUTPUT|ERRORS", with N in place of each pid.
    static std::string Run(std::vector<std::string> arguments, const Identity& identity = {}) {
        Child child([&] { return Exec(std::move(arguments), identity); });
        const int exitCode = child.ExitCode();
        const std::string text =
            std::to_string(exitCode) + "|" + ReadFile(In("out")) + "|" + ReadFile(In("err"));
        return std::regex_replace(text, std::regex("(pid\"?[: ])[1-9][0-9]*"), "$1N");
    }
    static int Exec(std::vector<std::string> arguments, const Identity& identity) {
        const std::string pmctl = In("pmctl");
        arguments.insert(arguments.begin(), pmctl);
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        dup2(open(In("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        dup2(open(In("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
        if (setgroups(identity.groups.size(), identity.groups.data()) == 0 &&
            setgid(identity.gid) == 0 && setuid(identity.uid) == 0) {
            execv(pmctl.c_str(), argv.data());
        }
        return 127;
    }

    RawOwner vintor_{"vintor"};
};

TEST_F(ConsoleE2e, WhatPeopleTypeAndSee) {
    BootConsole();
    EXPECT_EQ(Run({"start", "--wait", "web", "db"}).substr(0, 2), "0|");
    EXPECT_EQ(Run({"query", "web", "db"}), "0|web: runs\ndb: runs\n|");
    EXPECT_EQ(Run({"start", "--wait=20", "web"}), "0|web: runs, pid N\n|");
    EXPECT_EQ(Run({"restart", "--wait", "web"}), "0|web: restarted, pid N\n|");
    EXPECT_EQ(Run({"stop", "--wait", "web"}), "0|web: stopped\n|");
    EXPECT_EQ(Run({"query", "web", "db"}), "1|web: not a running application\ndb: runs\n|");
    EXPECT_EQ(Run({"stop", "--wait", "web", "nosuch"}),
              "0|web: not a running application\nnosuch: not a running application\n|");
    // The report of the new process may come before the answer that ends the command.
    EXPECT_THAT(Run({"restart", "web"}),
                testing::AnyOf("0|web: restart requested\n|", "0|web: restarted, pid N\n|"));
    EXPECT_EQ(Run({"start", "--wait", "nosuch"}),
              "1|nosuch: no such application, or it has ended at once\n|");
    EXPECT_EQ(Run({"restart", "absent", "nosuch"}),
              "1|absent: did not start, has ended, or is no application: see the log of the "
              "daemon\nnosuch: did not start, has ended, or is no application: see the log of the "
              "daemon\n|");
    // An application of another owner: it stays that owner's, and both are told.
    ASSERT_TRUE(vintor_.Send(0, "1#dynamic#1#1000#0#"));
    EXPECT_EQ(vintor_.Next(), "dynamic 0");
    EXPECT_EQ(Run({"restart", "--wait", "dynamic", "--arg", "2000"}),
              "0|dynamic: restarted, pid N\n|");
    EXPECT_EQ(vintor_.Next(), "dynamic 1");
    EXPECT_EQ(Run({"stop", "--wait", "dynamic"}), "0|dynamic: stopped\n|");
    EXPECT_EQ(vintor_.Next(), "dynamic 3");
    EXPECT_EQ(Run({"start", "--wait", "dynamic", "--arg", "7; x"}),
              "1|dynamic: did not start, or has ended: see the log of the daemon\n|");
    // Files, and JSON.
    WriteFile(In("more.yaml"), "applications:\n" + App("late"));
    const std::string taken =
        "/run/e2e/more.yaml: taken by the daemon; if it cannot use the file, "
        "its log has the reason\n|";
    EXPECT_EQ(Run({"load", In("more.yaml")}), "0|" + taken);
    EXPECT_EQ(Run({"reload", In("more.yaml"), "slot=1", "--wait"}), "0|" + taken);
    EXPECT_EQ(Run({"--json", "start", "late", "--wait"}),
              "0|{\"event\":\"sent\"}\n"
              R"({"event":"report","name":"late","type":"RUNNING_NORMAL_START","result":0,"pid":N,)"
              R"("text":"runs","final":true,"ok":true})"
              "\n{\"event\":\"done\",\"ok\":true}\n|");
    EXPECT_EQ(Run({"load", In("none.yaml")}),
              "1||pmctl: /run/e2e/none.yaml: No such file or directory\n");
    EXPECT_EQ(Run({"stop", "a/b"}), "2||pmctl: \"a/b\" cannot be the name of an application\n");
    EXPECT_EQ(Run({"--console", "/run/e2e/none", "query", "web"}),
              "3||pmctl: pm-console does not run: start it as a base service, see docs/pmctl.md\n");
}

TEST_F(ConsoleE2e, WhoMayUseIt) {
    BootConsole();
    EXPECT_EQ(Run({"query", "web"}, {SVC, SVC}), std::string("4||pmctl: no permission for ") +
                                                     SOCKET +
                                                     ": become root or a member of group extra\n");
    EXPECT_EQ(Run({"query", "web"}, {SVC, EXTRA}), "1|web: not a running application\n|");
    EXPECT_EQ(Run({"query", "web"}, {SVC, SVC, {5, EXTRA}}), "1|web: not a running application\n|");
    // Also when the mode of the file lets another user in.
    std::filesystem::permissions(SOCKET, std::filesystem::perms(0666));
    EXPECT_EQ(Run({"query", "web"}, {SVC, SVC}),
              "4||pmctl: only root and the group of the socket may do this\n");
}

TEST_F(ConsoleE2e, ClientsThatMisbehave) {
    BootConsole();
    const StreamClient silent(SOCKET);
    const StreamClient large(SOCKET);
    EXPECT_FALSE(large.Send(std::string(size_t{1} << 20, 'x'))) << "not read to the end";
    EXPECT_THAT(large.Rest(), HasSubstr("the request is longer than 65536 bytes"));
    EXPECT_EQ(silent.Rest(), "") << "no request in time";

    std::vector<std::string> start = {"start", "--wait"};
    for (int i = 0; i < HOLDERS; ++i) {
        start.push_back("hold" + std::to_string(i));
    }
    ASSERT_EQ(Run(start).substr(0, 2), "0|");
    std::vector<StreamClient> clients;
    for (int i = 0; i < HOLDERS; ++i) {
        ASSERT_TRUE(WaitForFile("hold" + std::to_string(i) + ".up"));
        clients.emplace_back(SOCKET);
        ASSERT_TRUE(clients.back().Send(Line("stop", "hold" + std::to_string(i))));
        EXPECT_EQ(clients.back().Line(), "{\"event\":\"sent\"}\n");
    }
    EXPECT_EQ(Run({"query", "web"}), "3||pmctl: pm-console serves 16 clients already\n");
    clients.pop_back();
    EXPECT_TRUE(WaitUntil([] {
        return Run({"query", "web"}) == "1|web: not a running application\n|";
    })) << "a client that has died leaves its place";
    EXPECT_EQ(Run({"stop", "--wait=0.2", "hold15"}),
              "1|hold15: refused: it is being started, stopped or restarted\n|");
    EXPECT_EQ(Run({"start", "--wait", "web"}), "0|web: runs, pid N\n|");
    WriteFile(In("go"), "");
    for (const StreamClient& client : clients) {
        EXPECT_THAT(client.Rest(), EndsWith("{\"event\":\"done\",\"ok\":true}\n"));
    }
    ExpectOrderlyStop();
    EXPECT_EQ(Log().Count("SendSignal: 9 to app=pm-console"), 0U) << "it has ended in time";
    EndRun();
}

TEST_F(ConsoleE2e, TheDaemonIsGone) {
    BootConsole();
    ASSERT_EQ(Run({"start", "--wait", "hold0"}), "0|hold0: runs, pid N\n|");
    ASSERT_TRUE(WaitForFile("hold0.up"));
    EXPECT_EQ(Run({"stop", "--wait=0.3", "hold0"}), "6||pmctl: hold0: no result within 300 ms\n");
    const StreamClient waiting(SOCKET);
    ASSERT_TRUE(waiting.Send(Line("start", "web")));
    EXPECT_THAT(waiting.Rest(), EndsWith("{\"event\":\"done\",\"ok\":true}\n"));
    harness_.Signal(SIGKILL);
    ASSERT_TRUE(harness_.WaitForExit());
    EXPECT_TRUE(WaitUntil([] {
        return Run({"query", "web"}) ==
               "3||pmctl: process-manager does not run, or has not opened the pipe yet\n";
    }));
    EndRun();
}

}  // namespace
