// The status endpoint of a running daemon: its documents are read with the YAML parser, because
// JSON is YAML.
#include <memory>

#include "platform/manifest.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/support/status_client.h"

namespace {

using ProcMgr::KvsTypeYaml;
using ProcMgr::Tests::AskStatus;
using ProcMgr::Tests::StatusClient;

constexpr const char* SOCKET = "/run/process-manager/status.sock";

// The answer to one request.
class Answer {
public:
    explicit Answer(const std::string& request) : text_(AskStatus(SOCKET, request)) {
        WriteFile("/run/e2e/answer.json", text_);
        EXPECT_TRUE(top_.InitYamlNode("/run/e2e/answer.json")) << text_;
    }
    // The value at a path as "services.0.name"; the size of a list at "services.#"; "-" when there
    // is none.
    std::string operator[](const std::string& path) const { return Find(top_, path); }
    // The value at `path` in the service or application of that name.
    std::string Of(const std::string& name, const std::string& path) const {
        for (const std::string list : {"services.", "applications."}) {
            for (size_t i = 0; (*this)[list + std::to_string(i)] != "-"; ++i) {
                const std::string entry = list + std::to_string(i) + ".";
                if ((*this)[entry + "name"] == name) {
                    return (*this)[entry + path];
                }
            }
        }
        return "no " + name;
    }
    long NumberOf(const std::string& name, const std::string& path) const {
        return std::stol(Of(name, path));
    }
    std::string WhyAndNext(const std::string& name) const {
        return Of(name, "why") + " | " + Of(name, "next");
    }

private:
    static std::string Find(const KvsTypeYaml& node, const std::string& path) {
        if (path.empty()) {
            return node.GetString();
        }
        const size_t end = std::min(path.find('.'), path.size());
        const std::string key = path.substr(0, end);
        if (key == "#") {
            return std::to_string(node.GetSize());
        }
        KvsTypeYaml child;
        const bool isIndex = key.find_first_not_of("0123456789") == std::string::npos;
        const bool isFound =
            isIndex ? node.GetElement(std::stoul(key), child) : node.GetSubKvs(key, child);
        return isFound ? Find(child, path.substr(std::min(end + 1, path.size()))) : "-";
    }

    std::string text_;
    KvsTypeYaml top_;
};

class Status : public E2e {
protected:
    static void SwitchOn() { BindFile("status: {enable: true, group: svc}\n", SETTINGS); }
    // Boots until zornmgr is waited for.
    void BootNine() {
        Boot(Reporter("zornmgr", "await, " + In("go") + ", ") +
             Entry("late", "ignore-term, touch, " + In("late") + ", stay",
                   "depends: [zornmgr], term_timeout: 2000, uid: 1000, gid: 1000") +
             Entry("fails", "exit, 3") +
             Entry("loops", "exit, 4", "restart: on-failure, depends: [late]") +
             "  - {name: missing, bin: /run/e2e/nothing}\n" +
             Entry("after", "stay", "depends: [missing]") + Entry("one", "stay", "depends: [two]") +
             Entry("two", "stay", "depends: [one]") +
             Entry("last", "stay", "depends: [fails, late]") + "applications:\n" +
             App("prio", ", startup_priority: 1"));
        ASSERT_TRUE(WaitForLine("waiting for baseApp=zornmgr"));
        ASSERT_TRUE(WaitForLine("Process fails removed from the list"));
    }
    // Lets start-up go on, to its end and that of the restarts.
    void GoOn() {
        WriteFile(In("go"), "");
        ASSERT_TRUE(WaitForLine(START_UP_END));
        ASSERT_TRUE(WaitForLine("Process loops removed from the list"));
        ASSERT_TRUE(WaitForFile("late"));
    }
    static bool DoChildrenShareMemory() {
#ifdef PROCMGR_SANITIZED
        return false;
#else
        return ReadFile("/proc/sys/fs/suid_dumpable").starts_with("0");
#endif
    }
    // What a process of this user, group and supplementary group gets: "0" for a document, else
    // the errno of the connect.
    static int AnswerTo(uid_t uid, gid_t gid, gid_t supplementary) {
        Child child([&] {
            if (setgroups(1, &supplementary) != 0 || setgid(gid) != 0 || setuid(uid) != 0) {
                return -1;
            }
            const StatusClient client(SOCKET);
            return client.Error() == 0 ? AskStatus(SOCKET, "status").empty() : client.Error();
        });
        return child.ExitCode();
    }
};

TEST_F(Status, IsOffUnlessTheSettingsSwitchItOn) {
    BindFile("status: {group: svc}\n", SETTINGS);
    BootWhole(Entry("svc"));
    EXPECT_FALSE(std::filesystem::exists("/run/process-manager"));
}

TEST_F(Status, ShowsAStartUpThatWaits) {
    SwitchOn();
    BootNine();
    const Answer answer("status");
    EXPECT_EQ(answer["version"], "1");
    EXPECT_EQ(answer["daemon.phase"], "base-services");
    EXPECT_EQ(answer["daemon.config"] + answer["daemon.config_error"], BASE_YAML);
    EXPECT_EQ(answer["services.#"], "9");
    EXPECT_EQ(answer["services.2.name"], "fails");
    EXPECT_EQ(answer.WhyAndNext("zornmgr"),
              "waits for its own report | will be RUNNING when it reports");
    EXPECT_EQ(answer.WhyAndNext("late"),
              "waits for zornmgr | will be started when zornmgr reports RUNNING");
    EXPECT_EQ(answer.WhyAndNext("last"),
              "waits for its turn; fails, which it depends on, will not run | "
              "nothing, it will be refused in its turn: fails does not run");
    EXPECT_EQ(answer.WhyAndNext("one"),
              "is in a dependency cycle | nothing, it will not be started");
    EXPECT_EQ(answer.WhyAndNext("fails"), "exited with status 3 | nothing, the policy is no");
    EXPECT_EQ(answer.Of("fails", "state"), "TERMINATED");
    EXPECT_EQ(answer.Of("fails", "last_exit.status"), std::to_string(3 << 8));
    EXPECT_EQ(answer.Of("prio", "state"), "RUNNING");
    EXPECT_EQ(answer.Of("prio", "owner"), "zornmgr");
    EXPECT_EQ(answer.Of("prio", "boot.started_ns"), "-");
    WriteFile(In("go"), "");
}

TEST_F(Status, ShowsWhatHasBecomeOfEachService) {
    SwitchOn();
    BootNine();
    GoOn();
    const Answer answer("status");
    EXPECT_EQ(answer["daemon.phase"], "running");
    EXPECT_EQ(answer["daemon.phases.#"], "6");
    EXPECT_EQ(answer.Of("zornmgr", "state"), "RUNNING");
    EXPECT_EQ(answer.Of("zornmgr", "ready"), "true");
    EXPECT_EQ(answer.WhyAndNext("late"), " | nothing, it runs");
    EXPECT_EQ(answer.Of("late", "uid"), "1000");
    EXPECT_GT(answer.NumberOf("late", "rss_kib"), 0);
    EXPECT_EQ(answer.NumberOf("late", "threads"), 1);
    EXPECT_EQ(answer.WhyAndNext("loops"),
              "exited with status 4 | "
              "nothing, the policy on-failure gave up after five attempts within a minute");
    EXPECT_EQ(answer.Of("loops", "starts") + answer.Of("loops", "restarts_in_last_minute"), "65");
    EXPECT_EQ(answer.WhyAndNext("missing"),
              "could not be started: there is no program /run/e2e/nothing | "
              "nothing, the first start is not repeated");
    EXPECT_EQ(answer.WhyAndNext("after"),
              "missing, which it depends on, does not run | nothing, it will not be started");
    EXPECT_EQ(answer.WhyAndNext("one"),
              "is in a dependency cycle | nothing, it will not be started");
    EXPECT_LE(answer.NumberOf("late", "boot.waiting_ns"),
              answer.NumberOf("late", "boot.released_ns"));
    EXPECT_LE(answer.NumberOf("late", "boot.released_ns"),
              answer.NumberOf("late", "boot.started_ns"));
    EXPECT_LE(answer.NumberOf("late", "boot.started_ns"),
              answer.NumberOf("late", "boot.running_ns"));
    // zornmgr, late, fails, prio, and loops six times.
    EXPECT_EQ(answer["counters.starts"], "10");
    EXPECT_EQ(answer["counters.exits"], "7");
    EXPECT_EQ(answer["counters.start_failures"], "1");
    // A service that was restarted has had a pipe, too.
    EXPECT_EQ(answer["pipes.0.owner"] + answer["pipes.0.open"], "loopsfalse");
    EXPECT_EQ(answer["pipes.1.owner"] + answer["pipes.1.open"], "zornmgrtrue");
    EXPECT_EQ(answer["pipes.1.pid"], answer.Of("zornmgr", "pid"));
    EXPECT_EQ(answer["faults.0.node"] + answer["faults.0.text"], "pm_base_servicestart failed");
    // The changes of one service, and the events from a number on.
    const Answer one("status loops");
    EXPECT_EQ(one["services.#"] + one["applications.#"] + one["services.0.name"], "10loops");
    EXPECT_EQ(one["services.0.output_tail.#"], "0");
    const size_t events = std::stoul(answer["events.#"]);
    const std::string last = "events." + std::to_string(events - 1) + ".";
    EXPECT_EQ(answer[last + "number"], std::to_string(events));
    const Answer later("events " + std::to_string(events - 1));
    EXPECT_EQ(later["events.#"] + later["events.0.name"], "1" + answer[last + "name"]);
    EXPECT_EQ(later["services"], "-");
}

TEST_F(Status, ShowsApplicationsThatDoNotRun) {
    SwitchOn();
    BootWhole(Entry("svc") + "applications:\n" +
              Entry("ends", "say, 1, last words, exit, 3", "startup_priority: 1, output: syslog") +
              "  - {name: absent, bin: /run/e2e/nothing, startup_priority: 2}\n" + App("later") +
              App("runs", ", startup_priority: 3"));
    ASSERT_TRUE(WaitForLine("Process ends removed from the list of generalAppMap_"));
    const Answer answer("status");
    std::string names;
    for (int i = 0; i < 4; ++i) {
        names += answer["applications." + std::to_string(i) + ".name"] + " ";
    }
    EXPECT_EQ(names, "absent ends later runs ");
    EXPECT_EQ(answer["applications.#"], "4");
    EXPECT_EQ(answer.WhyAndNext("ends"), "exited with status 3 | nothing, its owner decides");
    EXPECT_EQ(answer.Of("ends", "state") + answer.Of("ends", "pid"), "TERMINATED0");
    EXPECT_EQ(answer.Of("ends", "starts") + answer.Of("ends", "owner"), "1zornmgr");
    EXPECT_EQ(answer.NumberOf("ends", "last_exit.status"), 3 << 8);
    EXPECT_GE(answer.NumberOf("ends", "times.changed_ns"),
              answer.NumberOf("ends", "times.ended_ns"));
    EXPECT_EQ(answer.WhyAndNext("absent"),
              "could not be started: there is no program /run/e2e/nothing | "
              "nothing, its owner decides");
    EXPECT_EQ(answer.Of("absent", "start_failed") + answer.Of("ends", "start_failed"), "truefalse");
    EXPECT_EQ(answer.WhyAndNext("later"),
              "its start has not been requested | nothing, its owner decides");
    EXPECT_EQ(answer.Of("later", "state") + answer.Of("later", "starts"), "INITSTATE0");
    EXPECT_TRUE(WaitUntil(
        [] { return Answer("status ends")["applications.0.output_tail.0"] == "last words"; }));
}

TEST_F(Status, TellsAProgramThatCannotBeExecutedFromOneThatEnds) {
    SwitchOn();
    WriteFile(In("broken"), "no program", 0755);
    BootWhole("  - {name: broken, bin: /run/e2e/broken}\n" + Entry("ends", "exit, 1"));
    ASSERT_TRUE(WaitForLine("Process broken removed from the list"));
    ASSERT_TRUE(WaitForLine("Process ends removed from the list"));
    const Answer answer("status");
    EXPECT_EQ(answer.Of("ends", "why") + answer.Of("ends", "start_failed"),
              "exited with status 1false");
    EXPECT_EQ(answer.NumberOf("broken", "last_exit.status"), 1 << 8);
    EXPECT_EQ(answer.Of("broken", "why") + answer.Of("broken", "start_failed"),
              DoChildrenShareMemory() ? "could not be executed: Exec format error (errno 8)true"
                                      : "exited with status 1false");
}

TEST_F(Status, NamesTheFaultOfABaseFileThatIsRefused) {
    SwitchOn();
    Boot(Entry("a") + "  - name: b\n");
    ASSERT_TRUE(WaitForLine("PROCMGR : ParseYamlFile failed, ProcMgr return"));
    EXPECT_TRUE(WaitUntil([] { return Answer("status")["daemon.phase"] == "running"; }));
    EXPECT_EQ(Answer("status")["daemon.config_error"],
              std::string(BASE_YAML) + ":3: key 'bin': missing in the entry 'b'");
}

TEST_F(Status, TheGroupMayAskAndTheStopIsShown) {
    SwitchOn();
    BootNine();
    GoOn();
    EXPECT_EQ(AnswerTo(65534, 1000, 65534), 0);
    EXPECT_EQ(AnswerTo(65534, 65534, 1000), 0);
    EXPECT_EQ(AnswerTo(1000, 65534, 2000), EACCES) << "the user's groups do not count";
    harness_.Signal(SIGTERM);
    ASSERT_TRUE(WaitForLine("SendSignal: 15 to app=late"));
    const Answer answer("status late");
    EXPECT_EQ(answer["daemon.phase"], "stopping");
    EXPECT_THAT(
        answer.WhyAndNext("late"),
        testing::MatchesRegex("is being stopped on request . SIGKILL in [0-9]+ ms unless it ends"));
    const auto status = harness_.WaitForExit();
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    EXPECT_FALSE(std::filesystem::exists(SOCKET));
    EndRun();
}

}  // namespace
