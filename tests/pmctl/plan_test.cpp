// pmctl graph and pmctl plan: what they write, word by word.
#include <gtest/gtest.h>

#include <regex>

#include "tests/pmctl/run_pmctl.h"

namespace ProcMgr {
namespace {

using Tests::PmctlResult;

constexpr const char* PROGRAM = "#!/bin/sh\n";
constexpr const char* PROGRAM_DIGEST =
    "a8076d3d28d21e02012b20eaf7dbf75409a6277134439025f282e368e3305abf";

class PmctlPlan : public testing::Test {
protected:
    PmctlPlan() {
        files_.Write("b", PROGRAM, 0755);
        Manifest("boot.yaml",
                 "include: [debug/shell.yaml]\n"
                 "services:\n"
                 "- {name: web, bin: /b, depends: [base, db]}\n"
                 "- {name: db, bin: /b, depends: [base], reporting: true}\n"
                 "- {name: base, bin: /b}\n"
                 "- {name: one, bin: /b, depends: [two]}\n"
                 "- {name: two, bin: /b, depends: [one]}\n"
                 "- {name: after, bin: /b, depends: [two]}\n"
                 "- {name: lost, bin: /b, depends: [base, none]}\n"
                 "- {name: lost2, bin: /b, depends: [lost]}\n"
                 "applications:\n"
                 "- {name: late, bin: /b, startup_priority: 2}\n"
                 "- {name: soon, bin: /b, startup_priority: 0}\n"
                 "- {name: chosen, bin: /b, startup_priority: 0, match: {a: b}}\n"
                 "- {name: app, bin: /b}\n");
        Manifest("debug/shell.yaml", "services: [{name: shell, bin: /b, depends: [base]}]\n");
        Manifest("small.yaml",
                 "services:\n- {name: a, bin: /b, reporting: true}\n- {name: b, bin: /b, "
                 "depends: [a]}\n- {name: c, bin: /b, depends: [a]}\n");
    }

    // The program /b of the text is one of the directory.
    void Manifest(const std::string& name, const std::string& text) const {
        files_.Write(name,
                     std::regex_replace(text, std::regex("bin: /b"), "bin: " + (files_ / "b")));
    }
    PmctlResult Run(const std::vector<std::string>& arguments) const {
        return files_.Run(arguments);
    }
    // The output of a run that succeeds.
    std::string Out(const std::vector<std::string>& arguments) const {
        const PmctlResult result = Run(arguments);
        EXPECT_EQ(result.code, 0) << result.error;
        EXPECT_EQ(result.error, "");
        return result.out;
    }

    const Tests::PmctlDirectory files_{};
};

TEST_F(PmctlPlan, TextOfAPlan) {
    EXPECT_EQ(Out({"plan", "boot.yaml"}),
              "boot of boot.yaml\n"
              "priority applications, before the services:\n"
              "  soon (priority 0)\n"
              "  late (priority 2)\n"
              "batch 1:\n"
              "  base\n"
              "batch 2:\n"
              "  db, after base; waited for until it reports RUNNING\n"
              "  lost: not started: none, which it depends on, is no service\n"
              "batch 3:\n"
              "  lost2: not started: lost, which it depends on, is not started\n"
              "  web, after base, db\n"
              "not started:\n"
              "  shell: not started: the boot command line does not have procmgr=debug\n"
              "  one: not started: dependency cycle two -> one -> two\n"
              "  two: not started: dependency cycle two -> one -> two\n"
              "  after: not started: waits for a dependency cycle\n"
              "3 of 9 services are started\n");
    // The boot command line enables services, and replaces the file.
    EXPECT_NE(Out({"plan", "boot.yaml", "--cmdline", "quiet procmgr=debug,trace"})
                  .find("note: no manifest has the word 'trace' of the boot command line\n"),
              std::string::npos);
    EXPECT_NE(
        Out({"plan", "boot.yaml", "--cmdline", "procmgr=debug"}).find("  shell, after base\n"),
        std::string::npos);
    const std::string other = files_ / "small.yaml";
    EXPECT_EQ(Out({"plan", "boot.yaml", "--cmdline", "procmgr=boot:" + other}),
              "boot of " + other + "\nnote: the boot command line replaces boot.yaml by " + other +
                  "\nbatch 1:\n  a; waited for until it reports RUNNING\nbatch 2:\n  b, after a\n"
                  "  c, after a\n3 of 3 services are started\n");
}

// The programs and users are those of an image.
TEST_F(PmctlPlan, WhatTheDaemonWouldRefuse) {
    files_.Write("etc/passwd", "root:x:0:0::/:/bin/sh\n");
    files_.Write("etc/group", "root:x:0:\n");
    files_.Write("bin/sh",
                 "\x7f"
                 "ELF",
                 0755);
    files_.Write("bin/good", PROGRAM, 0755);
    files_.Write("bin/changed", "#!/bin/sh\n:\n", 0755);
    files_.Write("etc/vela/base-plat/process-manager/bin_hash.cfg",
                 std::string("good=") + PROGRAM_DIGEST + "\nchanged=" + PROGRAM_DIGEST + "\n");
    files_.Write("image.yaml",
                 "services:\n"
                 "- {name: good, bin: /bin/good, core_affinity: [1]}\n"
                 "- {name: gone, bin: /bin/gone}\n"
                 "- {name: next, bin: /bin/good, depends: [gone]}\n"
                 "- {name: shell, bin: /bin/good, args: [a;b]}\n"
                 "- {name: alien, bin: /bin/good, uid: 7, gid: 0}\n"
                 "- {name: changed, bin: /bin/changed}\n"
                 "applications:\n"
                 "- {name: early, bin: /bin/gone, startup_priority: 1}\n");
    EXPECT_EQ(Out({"plan", "--root", ".", "image.yaml"}),
              "boot of image.yaml\n"
              "note: cores are not checked: this machine is not the board\n"
              "priority applications, before the services:\n"
              "  early (priority 1): not started: there is no program /bin/gone\n"
              "batch 1:\n"
              "  alien: not started: the user database has no user 7: the daemon cannot start a "
              "process of it\n"
              "  changed: not started: /bin/changed does not have the digest of "
              "/etc/vela/base-plat/process-manager/bin_hash.cfg: the daemon refuses the start\n"
              "  gone: not started: there is no program /bin/gone\n"
              "  good\n"
              "  shell: not started: argument 1 holds a character of the shell, one of | ; > < ` & "
              "( ) $: the daemon refuses the start\n"
              "batch 2:\n"
              "  next: not started: gone, which it depends on, is not started\n"
              "1 of 6 services are started\n");
    const std::string order = Out({"plan", "--root", ".", "--no-programs", "image.yaml"});
    EXPECT_EQ(order.substr(order.find("batch 2")),
              "batch 2:\n  next, after gone\n6 of 6 services are started\n");
    const std::string json = Out({"--json", "plan", "--root", ".", "image.yaml"});
    EXPECT_NE(
        json.find("\"outcome\": \"refused\",\n      \"why\": \"there is no program /bin/gone\""),
        std::string::npos);
    EXPECT_NE(Out({"graph", "--root", ".", "image.yaml"})
                  .find("gone before next [there is no program /bin/gone]\n"),
              std::string::npos);
}

TEST_F(PmctlPlan, TextAndDotOfAGraph) {
    Manifest("tiny.yaml",
             "services: [{name: a, bin: /b}, {name: b, bin: /b, depends: [a, none]}]\n");
    EXPECT_EQ(Out({"graph", "tiny.yaml"}),
              "a before b\nb after a, none (missing) [none, which it depends on, is no service]\n");
    EXPECT_EQ(Out({"graph", "--dot", "tiny.yaml", "-o", "out.dot"}), "");
    EXPECT_EQ(
        Tests::ReadFile(files_ / "out.dot"),
        "digraph \"tiny.yaml\" {\n  rankdir=LR;\n  node [shape=box];\n  \"a\";\n"
        "  \"b\" [color=red, tooltip=\"none, which it depends on, is no service\"];\n"
        "  \"a\" -> \"b\";\n  \"none\" -> \"b\";\n  \"none\" [color=red, style=dashed];\n}\n");
    const std::string svg = Out({"graph", "--svg", "tiny.yaml"});
    EXPECT_TRUE(svg.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg "));
    EXPECT_TRUE(svg.ends_with("</svg>\n"));
}

constexpr const char* STATUS_BEGIN =
    R"({"version":1,"clock":{"monotonic_ns":9000000000,"realtime_ns":9000000000},"daemon":{)"
    R"("version":"1.0.0","pid":1,"config":"small.yaml","quick_start":false,"phase":"running",)"
    R"("phases":[],"cpu_ms":0,"rss_kib":0,"threads":1,"log_lines_dropped":0},"counters":{)"
    R"("starts":2,"start_failures":0,"exits":0,"unknown_exits":0,"state_changes":0,)"
    R"("status_requests":0,"status_clients_refused":0,"status_clients_dropped":0,)"
    R"("output_lines_dropped":0},"applications":[],"pipes":[],"faults":[],"events":[],"services":[)";

// One service of a status document; times of the boot in milliseconds.
std::string ServiceOf(const std::string& name, bool isReporting, int released, int started,
                      int running) {
    const auto time = [](const char* key, int number) {
        return std::string("\"") + key + "\":" + std::to_string(number) + "000000";
    };
    return R"({"name":")" + name +
           R"(","kind":"service","state":"RUNNING","pid":5,"owner":"","policy":"no","priority":-1,)"
           R"("reporting":)" +
           (isReporting ? "true" : "false") +
           R"(,"ready":true,"heartbeat":false,"exec":"/b","uid":0,"gid":0,"depends":[],"starts":1,)"
           R"("restarts_in_last_minute":0,"last_exit":null,"why":"","next":"","settled":false,"start_failed":false,"times":{)"
           R"("waiting_ns":1,"started_ns":1,"running_ns":1,"ready_ns":0,"ended_ns":0},"boot":{)" +
           time("waiting_ns", 1) + "," + time("released_ns", released) + "," +
           time("started_ns", started) + "," + time("running_ns", running) +
           R"(},"groups":{"cpu":"","cpuset":"","blkio":"","other":{}},"cores":[],"cpu_ms":0,)"
           R"("rss_kib":0,"threads":0,"output":"inherit","output_tail":[]})";
}

TEST_F(PmctlPlan, TimesOfAnEarlierBoot) {
    files_.Write("before.json", STATUS_BEGIN + ServiceOf("a", true, 1000, 1010, 1090) + "," +
                                    ServiceOf("b", false, 1090, 1100, 1150) + "]}\n");
    const std::string out = Out({"plan", "small.yaml", "--times", "before.json"});
    EXPECT_EQ(out.substr(out.find("predicted")),
              "predicted times from the start of the first service\n"
              "name       started       running\n"
              "a          10.0 ms       90.0 ms |---####################                 |\n"
              "b         100.0 ms      150.0 ms |.......................--=============  |\n"
              "c         110.0 ms      160.0 ms |.........................---============|"
              " estimated\n"
              ". before its turn  - launch  = until it runs  # start-up waits for its report\n"
              "critical path, 160.0 ms:\n"
              "       90.0 ms  56 %  a\n"
              "       20.0 ms  13 %  2 launches\n"
              "       50.0 ms  31 %  c until it runs\n");
    const std::string json = Out({"--json", "plan", "small.yaml", "--times", "before.json"});
    EXPECT_EQ(
        json.substr(json.find("\"critical_path\"")),
        "\"critical_path\": [\n      {\n        \"what\": \"a\",\n        \"ms\": 90.0\n"
        "      },\n      {\n        \"what\": \"2 launches\",\n        \"ms\": 20.0\n      },\n"
        "      {\n        \"what\": \"c until it runs\",\n        \"ms\": 50.0\n      }\n"
        "    ]\n  }\n}\n");
    EXPECT_NE(Out({"plan", "small.yaml", "--times", "before.json", "--svg"}).find("</svg>"),
              std::string::npos);
    files_.Write("bad.json", "{\"version\":1");
    EXPECT_EQ(Run({"plan", "small.yaml", "--times", "bad.json"}).code, 5);
}

TEST_F(PmctlPlan, JsonOfAPlan) {
    Manifest("tiny.yaml", "services: [{name: b, bin: /b, depends: [none], reporting: true}]\n");
    EXPECT_EQ(Out({"plan", "--json", "tiny.yaml"}),
              "{\n  \"file\": \"tiny.yaml\",\n  \"notes\": [],\n  \"priority_applications\": [],\n"
              "  \"services\": [\n    {\n      \"name\": \"b\",\n      \"file\": \"tiny.yaml\",\n"
              "      \"batch\": 1,\n      \"depends\": [\n        \"none\"\n      ],\n"
              "      \"reporting\": true,\n      \"outcome\": \"refused\",\n"
              "      \"why\": \"none, which it depends on, is no service\"\n    }\n  ],\n"
              "  \"cycles\": [],\n  \"forecast\": null\n}\n");
}

TEST_F(PmctlPlan, WhatCannotBePlanned) {
    files_.Write("wrong.yaml", "services: [{name: a}]\n");
    EXPECT_EQ(
        Run({"plan", "wrong.yaml"}),
        (PmctlResult{1, "",
                     "pmctl: the daemon would start nothing: wrong.yaml:1: key 'bin': missing "
                     "in the entry 'a': see pmctl check\n"}));
    EXPECT_EQ(Run({"plan", "small.yaml", "--svg"}).code, 2);
    EXPECT_EQ(Run({"graph", "small.yaml", "--svg", "--dot"}).code, 2);
    EXPECT_EQ(Run({"graph", "small.yaml", "-o", "/nowhere/x"}),
              (PmctlResult{1, "", "pmctl: cannot write /nowhere/x: No such file or directory\n"}));
}

}  // namespace
}  // namespace ProcMgr
