// The exact output of the commands about the running daemon, for a document with all odd cases.
// The expected texts are in the files of online/.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/pmctl/fake_daemon.h"

namespace ProcMgr {
namespace {

using namespace Tests;

struct Case {
    std::vector<std::string> arguments;
    std::string file;
    int code = 0;
};

class OnlineCommands : public PmctlTest {
protected:
    void SetUp() override {
        Serve([this](const std::string& request) { return document_.Answer(request); });
    }

    void Check(const Case& one) const {
        SCOPED_TRACE(one.file);
        const Outcome outcome = Run(one.arguments);
        EXPECT_EQ(outcome.out, ReadFile(TEST_DATA "/" + one.file));
        EXPECT_EQ(outcome.error, "");
        EXPECT_EQ(outcome.code, one.code);
    }

    const Document document_{"status.json"};
};

TEST_F(OnlineCommands, TextOfEachCommand) {
    const Case cases[] = {
        {{"status"}, "status.txt"},
        {{"status", "network"}, "status_network.txt"},
        {{"status", "crasher"}, "status_crasher.txt", 1},
        {{"status", "log"}, "status_log.txt"},
        {{"tree"}, "tree.txt"},
        {{"events"}, "events.txt"},
        {{"events", "--since", "42", "leaving"}, "events_leaving.txt"},
        {{"why", "front"}, "why_front.txt"},
        {{"why", "crasher"}, "why_crasher.txt"},
        {{"why", "worker"}, "why_worker.txt"},
        {{"why", "log"}, "why_log.txt"},
        {{"boot"}, "boot.txt"},
        {{"blame", "--lines", "4"}, "blame.txt"},
        {{"metrics"}, "metrics.txt"},
    };
    for (const Case& one : cases) {
        Check(one);
    }
}

TEST_F(OnlineCommands, JsonOfEachCommand) {
    const Case cases[] = {
        {{"--json", "tree"}, "tree.json"},
        {{"--json", "events", "crasher"}, "events_crasher.json"},
        {{"why", "middle", "--json"}, "why_middle.json"},
        {{"why", "log", "--json"}, "why_log.json"},
        {{"--json", "boot"}, "boot.json"},
        {{"--json", "blame"}, "boot.json"},
    };
    for (const Case& one : cases) {
        Check(one);
    }
    EXPECT_EQ(Run({"--json", "status"}).out, document_.All());
    const Outcome one = Run({"--json", "status", "leaving"});
    EXPECT_EQ(one.out, document_.Of("leaving"));
    EXPECT_EQ(one.code, 1);
    const std::string file = directory_ / "file";
    EXPECT_EQ(Run({"--json", "metrics"}).code, 2);
    EXPECT_EQ(Run({"--json", "report", "--html", file}).code, 2);
    EXPECT_EQ(Run({"--json", "boot", "--svg", file}).code, 2);
    EXPECT_FALSE(std::filesystem::exists(file));
}

// The first line of `status NAME` for a service that differs from the one in the file.
TEST_F(OnlineCommands, HealthFollowsWhatTheDaemonWillDo) {
    const std::string gaveUp = "within a minute\",\"settled\":true";
    const std::string policy = "\"TERMINATED\",\"pid\":0,\"owner\":\"\",\"policy\":\"";
    struct {
        std::vector<std::pair<std::string, std::string>> changes;
        std::string name;
        std::string health;
    } const cases[] = {
        {{{gaveUp, "within a minute\",\"settled\":false"}}, "crasher", "starting"},
        {{{"\"status\":768", "\"status\":0"}}, "crasher", "failed"},
        {{{policy + "on-failure", policy + "no"}}, "crasher", "failed"},
        {{{"\"status\":768", "\"status\":0"}, {policy + "on-failure", policy + "no"}},
         "crasher",
         "stopped"},
        {{{"is in a dependency cycle", "excluded by the boot command line"}},
         "ring_a",
         "not started"},
        {{{"\"RESTARTING\",\"pid\":5000008", "\"INITSTATE\",\"pid\":0"}}, "worker", "starting"},
        {{{"\"name\":\"log\",\"kind\":\"service\"", "\"name\":\"l\",\"kind\":\"service\""},
          {"\"TERMINATED\",\"pid\":0,\"owner\":\"vintor\"",
           "\"INITSTATE\",\"pid\":0,\"owner\":\"\""}},
         "log",
         "not started"},
    };
    for (const auto& one : cases) {
        std::string text = document_.All();
        for (const auto& [from, to] : one.changes) {
            ASSERT_NE(text.find(from), std::string::npos) << from;
            text = Replaced(text, from, to);
        }
        Serve([&text](const std::string&) { return text; });
        const std::string out = Run({"status", one.name}).out;
        const std::string line = out.substr(out.find(": ") + 2);
        EXPECT_EQ(line.substr(0, line.find('\n')), one.health) << out;
    }
}

TEST_F(OnlineCommands, WhyShowsTheOutputThatExplains) {
    Serve([&](const std::string& request) {
        const char* tail = request == "status" ? "" : R"(,"output_tail":["last\u001b words"])";
        return document_.With(R"("output":"inherit")", std::string(R"("output":"syslog")") + tail);
    });
    const std::string tail = "The last lines of its output:\n    last\\x1b words\n";
    for (const char* name : {"crasher", "slow_reporter", "network"}) {
        EXPECT_TRUE(Run({"why", name}).out.ends_with(tail)) << name;
    }
    EXPECT_EQ(Run({"why", "absent"}).out.find("output"), std::string::npos);
}

TEST_F(OnlineCommands, FieldsThatNotEveryDaemonHas) {
    Serve([this](const std::string&) {
        const std::string text = document_.With("\"ended_ns\":7294500000000",
                                                "\"ended_ns\":1,\"changed_ns\":7299000000000");
        return Replaced(text, "\"log_lines_dropped\"",
                        "\"config_error\":\"no \\u001b file\",\"log_lines_dropped\"");
    });
    EXPECT_NE(Run({"status", "crasher"}).out.find("TERMINATED for 1 s (since "), std::string::npos);
    const std::string refused =
        "the base-service file was refused: no \\x1b file; see pmctl check\n  "
        "/etc/base_service.yaml\n";
    EXPECT_NE(Run({"status"}).out.find('\n' + refused), std::string::npos);
    EXPECT_TRUE(Run({"boot"}).out.starts_with(refused));
    EXPECT_NE(Run({"report", "--html", "-"}).out.find("was refused: no "), std::string::npos);
}

TEST_F(OnlineCommands, EventsAreFoundByNamesThatTheyCut) {
    const std::string name =
        "a_service_with_a_name_that_is_far_too_long_for_any_column_of_a_table_on_a_terminal";
    // The 63rd byte is the first one of a character.
    const std::string wide = std::string(62, 'w') + "データ";
    Serve([&](const std::string&) {
        const std::string text = document_.With("\"name\":\"worker\",\"pid\"",
                                                "\"name\":\"" + name.substr(0, 63) + "\",\"pid\"");
        return Replaced(text, "\"name\":\"leaving\",\"pid\"",
                        "\"name\":\"" + std::string(62, 'w') + "\\u00e3\",\"pid\"");
    });
    EXPECT_EQ(Run({"events", name}).out.find("    43  "), 0);
    EXPECT_EQ(Run({"events", wide}).out.find("    44  "), 0);
}

// Names come from manifests of others; what they contain must not become a part of the page.
TEST_F(OnlineCommands, PagesAndPicturesEscapeNames) {
    EXPECT_EQ(Run({"boot", "--svg", directory_ / "boot.svg"}).code, 0);
    // A link that somebody else has left is replaced; it could lead to a disk.
    std::filesystem::create_symlink("/dev/null", directory_ / "report.html");
    EXPECT_EQ(Run({"report", "--html", directory_ / "report.html"}).code, 0);
    const std::string svg = ReadFile(directory_ / "boot.svg");
    EXPECT_TRUE(svg.starts_with("<?xml"));
    EXPECT_TRUE(svg.ends_with("</svg>\n"));
    const std::string page = ReadFile(directory_ / "report.html");
    EXPECT_TRUE(page.ends_with("</html>\n"));
    for (const std::string& text : {svg, page}) {
        EXPECT_NE(text.find("&lt;script&gt;&quot;&#39;&amp;"), std::string::npos);
        EXPECT_EQ(text.find("<script"), std::string::npos);
        EXPECT_EQ(text.find('\x1b'), std::string::npos);
    }
    EXPECT_EQ(Run({"boot", "--svg", "-"}).out, svg);
    const Outcome refused = Run({"report", "--html", directory_ / "no/where.html"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.error, "pmctl: cannot write " + (directory_ / "no/where.html") +
                                 ": No such file or directory\n");
}

TEST_F(OnlineCommands, UnknownNamesNameTheNearest) {
    for (const char* command : {"status", "why", "events"}) {
        const Outcome outcome = Run({command, "netwrok"});
        EXPECT_EQ(outcome.code, 1);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.error,
                  "pmctl: there is no service or application 'netwrok'; did you mean 'network'?\n");
    }
    EXPECT_EQ(Run({"status", ""}).code, 1);
    EXPECT_EQ(Run({"why", "zzzzzz"}).error,
              "pmctl: there is no service or application 'zzzzzz': see pmctl status\n");
}

}  // namespace
}  // namespace ProcMgr
