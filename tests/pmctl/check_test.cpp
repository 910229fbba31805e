// pmctl check on an image of a board: what it writes, word by word.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/pmctl/run_pmctl.h"

namespace ProcMgr {
namespace {

using Tests::PmctlResult;

class PmctlCheck : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root to change owners";
        }
        ASSERT_EQ(chmod((image_ / ".").c_str(), 0755), 0);
        image_.Write("etc/passwd",
                     "root:x:0:0::/:/bin/sh\nuser:x:1000:1000::/:/bin/sh\n"
                     "guest:x:1001:1001::/:/bin/sh\n");
        image_.Write("etc/group", "root:x:0:\nusers:x:1000:\nstaff:x:2000:user\n");
        Program("bin/tool", 0755, 0, 2000);
    }

    // A program of the image, a script with an interpreter.
    void Program(const std::string& name, mode_t mode, uid_t owner, gid_t group) const {
        image_.Write("bin/sh",
                     "\x7f"
                     "ELF",
                     0755);
        image_.Write(name, "#!/bin/sh\n", mode);
        ASSERT_EQ(chown((image_ / name).c_str(), owner, group), 0);
        ASSERT_EQ(chmod((image_ / name).c_str(), mode), 0);
    }

    PmctlResult Check(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"check", "--root", "."});
        return image_.Run(arguments);
    }
    // The findings about a manifest with that text, without the summary.
    std::string FindingsOf(const std::string& text) const {
        image_.Write("m.yaml", text);
        const PmctlResult result = Check({"m.yaml"});
        EXPECT_EQ(result.error, "");
        EXPECT_EQ(result.code, result.out.find(": error: ") == std::string::npos ? 0 : 1);
        return result.out.substr(0, result.out.rfind("1 file checked: "));
    }
    // The findings about a service with a name (line 2), a program (line 3) and further lines.
    std::string FindingsOfService(const std::string& lines,
                                  const std::string& bin = "/bin/tool") const {
        return FindingsOf("services:\n- name: a\n  bin: " + bin + "\n" + lines);
    }

    const Tests::PmctlDirectory image_{};
};

TEST_F(PmctlCheck, FindsEveryErrorOfAFileAndItsIncludes) {
    image_.Write("etc/more.yaml", "services:\n- {name: storage, bin: /bin/tool, uid: x}\n");
    EXPECT_EQ(FindingsOf("include: [/etc/more.yaml, none.yaml]\n"
                         "services:\n"
                         "- name: gateway\n"
                         "  bin: /bin/tool\n"
                         "  restrat: on-failure\n"
                         "  depends: [storage]\n"
                         "- name: b c\n"
                         "  bin: tool\n"
                         "  reporting: perhaps\n"
                         "- bin: /bin/tool\n"
                         "- {name: gateway, bin: /bin/tool}\n"
                         "service: []\n"),
              "./etc/more.yaml:2: error: uid: expected a whole number, got 'x'\n"
              "m.yaml:1: error: include: none.yaml: cannot be opened: No such file or directory\n"
              "m.yaml:5: warning: restrat: unknown key, ignored (did you mean 'restart'?)\n"
              "m.yaml:7: error: name: a name holds no '#', '/', '=', ',', blank or control "
              "character, got 'b c'\n"
              "m.yaml:8: error: bin: expected an absolute path or match(EXPR), got 'tool'\n"
              "m.yaml:9: error: reporting: expected true or false, got 'perhaps'\n"
              "m.yaml:10: error: name: missing\n"
              "m.yaml:11: error: name: 'gateway' is also the name of the entry at m.yaml:3\n"
              "m.yaml:12: warning: service: unknown key, ignored (did you mean 'services'?)\n");
}

TEST_F(PmctlCheck, DependenciesThatTheDaemonDoesNotFind) {
    image_.Write("debug/shell.yaml", "services: [{name: shell, bin: /bin/tool}]\n");
    EXPECT_EQ(FindingsOf("include: [debug/shell.yaml]\n"
                         "services:\n"
                         "- {name: a, bin: /bin/tool, depends: [b]}\n"
                         "- {name: b, bin: /bin/tool, depends: [c, storag]}\n"
                         "- {name: c, bin: /bin/tool, depends: [a]}\n"
                         "- {name: d, bin: /bin/tool, depends: [a, shell]}\n"
                         "- {name: e, bin: /bin/tool, depends: [e, app]}\n"
                         "- {name: storage, bin: /bin/tool}\n"
                         "applications: [{name: app, bin: /bin/tool}]\n"),
              "m.yaml:3: error: depends: dependency cycle, none of these can start: a -> b -> c -> "
              "a (5 services cannot start because of cycles)\n"
              "m.yaml:4: error: depends: there is no service 'storag': the daemon does not start "
              "'b' (did you mean 'storage'?)\n"
              "m.yaml:6: warning: depends: 'shell' is started only when the boot command line "
              "enables debug/shell.yaml: without that the daemon does not start 'd'\n"
              "m.yaml:7: error: depends: 'app' is an application and no service: the daemon does "
              "not start 'e'\n"
              "m.yaml:7: error: depends: 'e' depends on itself and cannot start (5 services "
              "cannot start because of cycles)\n");
}

TEST_F(PmctlCheck, ProgramsThatTheUserMayNotExecute) {
    EXPECT_EQ(FindingsOfService(""), "");
    EXPECT_EQ(FindingsOfService("", "/bin/tol"),
              "m.yaml:3: error: bin: there is no program /bin/tol (did you mean 'tool'?)\n");
    EXPECT_EQ(FindingsOfService("", "/opt/x/tool"),
              "m.yaml:3: error: bin: there is no program /opt/x/tool (there is no /opt)\n");
    EXPECT_EQ(FindingsOfService("", "/bin"), "m.yaml:3: error: bin: /bin is a directory\n");
    EXPECT_EQ(FindingsOfService("  uid: 1000\n"), "") << "a member of the group of the program";
    EXPECT_EQ(FindingsOfService("  uid: 1001\n"),
              "m.yaml:3: error: bin: user 1001 may not execute /bin/tool (owner 0, group 2000, "
              "mode 0755) (the user has to be in the group of the file; that everybody may "
              "execute it is not enough)\n");
    EXPECT_EQ(FindingsOfService("  uid: 7\n  gid: 8\n"),
              "m.yaml:4: error: uid: the user database has no user 7: the daemon cannot start a "
              "process of it\n"
              "m.yaml:5: warning: gid: the user database has no group 8\n");
    Program("bin/tool", 0644, 0, 2000);
    EXPECT_EQ(FindingsOfService(""),
              "m.yaml:3: error: bin: /bin/tool (owner 0, group 2000, mode 0644) is not executable "
              "(chmod a+x)\n");
    // The daemon lets the user pass, and the kernel does not: a member of no more than 127 groups
    // counts as one of group 0 in the daemon.
    Program("bin/tool", 0750, 0, 0);
    EXPECT_EQ(FindingsOfService("  uid: 1001\n"),
              "m.yaml:3: error: bin: the kernel does not let user 1001 execute /bin/tool (owner "
              "0, group 0, mode 0750)\n");
    Program("home/private/tool", 0755, 1000, 1000);
    ASSERT_EQ(chmod((image_ / "home/private").c_str(), 0700), 0);
    ASSERT_EQ(symlink("/home/private/tool", (image_ / "bin/link").c_str()), 0);
    EXPECT_EQ(FindingsOfService("  uid: 1000\n", "/bin/link"),
              "m.yaml:3: error: bin: user 1000 may not enter /home/private (owner 0, group 0, mode "
              "0700) on the way to /bin/link\n");
    image_.Write("bin/script", "#!/bin/python3 -u\n", 0755);
    EXPECT_EQ(FindingsOfService("", "/bin/script"),
              "m.yaml:3: error: bin: the interpreter '/bin/python3' of /bin/script is missing\n");
}

TEST_F(PmctlCheck, KeysWithoutAnEffect) {
    EXPECT_EQ(FindingsOf("services:\n"
                         "- name: a\n"
                         "  bin: /bin/tool\n"
                         "  nice: 5\n"
                         "  startup_priority: 1\n"
                         "  set_rt_prio: 100\n"
                         "  args: [ok, a;b]\n"
                         "applications:\n"
                         "- name: b\n"
                         "  bin: match(/bin/.*)\n"
                         "  dynamic: true\n"
                         "  startup_priority: 0\n"
                         "  reporting: true\n"
                         "- name: c\n"
                         "  bin: match(/bin/.*)\n"),
              "m.yaml:4: warning: nice: has no effect on a service\n"
              "m.yaml:5: warning: startup_priority: does not change when a service is started "
              "(services start in the order of 'depends', only applications by priority)\n"
              "m.yaml:6: warning: set_rt_prio: '100' with set_rt_type '' has no effect (expected "
              "true, or 1 to 99 with set_rt_type SCHED_FIFO or SCHED_RR)\n"
              "m.yaml:7: error: args: argument 2 holds a character of the shell, one of | ; > < ` "
              "& ( ) $: the daemon refuses the start\n"
              "m.yaml:10: error: bin: nobody supplies the program of a priority application at "
              "boot, so the start fails\n"
              "m.yaml:13: warning: reporting: has no effect on an application (only base services "
              "report their own state)\n"
              "m.yaml:15: error: bin: the pattern has no effect, so there is no such program (it "
              "takes effect with 'dynamic: true')\n");
}

TEST_F(PmctlCheck, OtherFiles) {
    image_.Write("procmgr_cfg.yaml",
                 "watch_dog:\n  enabel: true\n  timeout: 5s\n  action: '7'\npmuplod: {}\n"
                 "pmupload: {enable: perhaps}\nstatus: {enable: true, group: stff}\n");
    image_.Write("env.cfg",
                 "# a comment\n\nHOST_CPU_SET=ctrl:40; user:20\nHOST_CPU_SETS=a:1\n"
                 "HOST_CPU_SET=a:x\nHOST_CPU_SWITCH=2\nHOST_CPU_SET=b:1;\n");
    const std::string digest(64, 'a');
    image_.Write("list", "one=" + digest + "\ntwo=" + std::string(64, 'A') +
                             "\n# three\none=" + digest + "\n");
    EXPECT_EQ(
        Check({"--strict", "procmgr_cfg.yaml", "env.cfg", "list"}),
        (PmctlResult{
            1,
            "procmgr_cfg.yaml:2: warning: watch_dog.enabel: unknown key, ignored (did you mean "
            "'enable'?)\n"
            "procmgr_cfg.yaml:3: error: watch_dog.timeout: expected seconds in digits (the daemon "
            "takes the default)\n"
            "procmgr_cfg.yaml:4: error: watch_dog.action: expected 0, 1 or 2 (the daemon takes the "
            "default)\n"
            "procmgr_cfg.yaml:5: warning: pmuplod: unknown section, ignored (did you mean "
            "'pmupload'?)\n"
            "procmgr_cfg.yaml:6: error: pmupload.enable: expected true or false (the daemon takes "
            "it for false)\n"
            "procmgr_cfg.yaml:7: error: status.group: there is no group 'stff': the daemon lets in "
            "only root (did you mean 'staff'?)\n"
            "env.cfg:3: warning: the line is skipped, because it holds the character ' ' (only "
            "letters, digits and :=;_'\"/ may be in a line, no blanks)\n"
            "env.cfg:4: warning: HOST_CPU_SETS: the daemon never applies this set by itself (did "
            "you mean 'HOST_CPU_SET'?)\n"
            "env.cfg:4: note: HOST_CPU_SETS: control groups are not checked: this machine does not "
            "have the board's control groups\n"
            "env.cfg:5: error: HOST_CPU_SET: 'x' of the group 'a' is not a number (the daemon does "
            "not read the lines after it)\n"
            "env.cfg:6: warning: HOST_CPU_SWITCH: expected 0 or 1 (the daemon takes it for 1)\n"
            "env.cfg:7: warning: HOST_CPU_SET: is given twice (the later line counts)\n"
            "env.cfg:7: error: HOST_CPU_SET: the group 'b' or its value '' is empty (a set is "
            "written group:percent;group:percent, without a ';' at the end)\n"
            "list:2: error: two: the digest is not 64 lower-case hexadecimal digits: the daemon "
            "does not start the program (sha256sum prints it)\n"
            "list:3: error: expected NAME=DIGEST (there are no comments in this file)\n"
            "list:4: warning: one: replaces the digest of line 1\n"
            "3 files checked: 8 errors, 7 warnings, 1 note\n",
            ""}));
}

TEST_F(PmctlCheck, JsonExitCodesAndDirectories) {
    image_.Write("d/top.yaml", "include: [sub/part.yml]\n");
    image_.Write("d/sub/part.yml", "services: [{name: a, bin: /bin/tool, colour: red}]\n");
    image_.Write("d/notes.txt", "no file to check");
    const PmctlResult expected{0,
                               "[\n  {\n"
                               "    \"severity\": \"warning\",\n"
                               "    \"file\": \"d/sub/part.yml\",\n"
                               "    \"line\": 1,\n"
                               "    \"key\": \"colour\",\n"
                               "    \"what\": \"unknown key, ignored\",\n"
                               "    \"hint\": \"\"\n  }\n]\n",
                               ""};
    EXPECT_EQ(Check({"--json", "d"}), expected) << "the included file is checked once";
    EXPECT_EQ(Check({"--strict", "--json", "d"}).code, 1);
    EXPECT_EQ(Check({"--as", "nothing", "d"}).code, 2);
    EXPECT_EQ(Check({}).code, 2);
    // Where the daemon reads a file, others must not be able to change it.
    image_.Write("open.yaml", "services: []\n", 0666);
    EXPECT_EQ(image_.Run({"check", "open.yaml"}).out,
              image_ /
                  "open.yaml: error: it is writable by group or others (the daemon does not "
                  "read it; --no-owner if it is a copy)\n"
                  "1 file checked: 1 error, 0 warnings, 0 notes\n");
    EXPECT_EQ(image_.Run({"check", "--no-owner", "open.yaml"}).code, 0);
}

}  // namespace
}  // namespace ProcMgr
