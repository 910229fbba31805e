#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "platform/manifest.h"
#include "tests/support/syslog_sink.h"

namespace ProcMgr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Names in the order in which rounds of free vertices come out; "|" between rounds.
std::string Order(DependGraph graph) {
    std::string order;
    for (auto free = graph.GetNoDependVertices(); !free.empty();
         free = graph.GetNoDependVertices()) {
        order += order.empty() ? "" : "|";
        for (const std::string& name : std::set<std::string>(free.begin(), free.end())) {
            order += name;
            graph.Pop(name);
        }
    }
    return order + (graph.IsEmpty() ? "" : "!");
}

TEST(DependGraphTest, PopReleasesOnlyWhatWaited) {
    DependGraph graph;
    EXPECT_TRUE(graph.IsEmpty());
    graph.Add("c", {"a", "b"});
    graph.Add("a", {});
    graph.Add("b", {"a"});
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("a"));
    graph.Pop("unknown");
    graph.Pop("b");  // before its turn: "c" still waits for "a"
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("a"));
    graph.Pop("a");
    graph.Pop("a");
    EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("c"));
    graph.Pop("c");
    EXPECT_TRUE(graph.IsEmpty());
}

class StartGraphTest : public testing::Test {
protected:
    void SetUp() override {
        if (!sink_.IsReady()) {
            GTEST_SKIP() << sink_.Error();
        }
    }

    // `services` as "NAME: DEPEND DEPEND" lines; the graph of `names`, or of all of them.
    std::string OrderOf(const std::vector<std::pair<std::string, std::string>>& services,
                        std::vector<std::string> names = {}) {
        char path[] = "/tmp/depend-test-XXXXXX";
        const int fd = mkstemp(path);
        std::ofstream file(path);
        file << "services:\n";
        const bool all = names.empty();
        for (const auto& [name, depends] : services) {
            file << "- {name: " << name << ", bin: /b, depends: [" << depends << "]}\n";
            if (all) {
                names.push_back(name);
            }
        }
        file.close();
        close(fd);
        ParseAndDepend parser;
        std::vector<ApplicationManifest> manifests;
        std::set<std::string> scratch;
        EXPECT_EQ(parser.ParseYaml(0, path, manifests, scratch), 0);
        unlink(path);
        DependGraph graph;
        graph.Add("left over", {"from before"});
        EXPECT_EQ(parser.GetStartGraph(names, graph), 0);
        return Order(graph);
    }

    SyslogSink sink_;
};

TEST_F(StartGraphTest, EdgesAreDependenciesAmongTheGivenNames) {
    const std::vector<std::pair<std::string, std::string>> services{
        {"d", "b, c"}, {"c", "a"}, {"b", "a"}, {"a", ""}, {"e", "missing"}};
    EXPECT_EQ(OrderOf(services), "ae|bc|d");
    EXPECT_EQ(OrderOf(services, {"d", "b"}), "b|d");
    EXPECT_EQ(OrderOf(services, {"d", "a", "a"}), "ad");
    EXPECT_EQ(OrderOf(services, {"a", "never parsed"}), "anever parsed");
    EXPECT_THAT(sink_.Lines(), IsEmpty());
}

TEST_F(StartGraphTest, CyclesAreReportedOnceAndNeverBecomeFree) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> services;
        std::string order;
        std::vector<std::string> cycles;
    };
    const std::vector<Case> cases{
        {{{"a", "a"}, {"b", ""}}, "b!", {"a -> a"}},
        {{{"a", "b"}, {"b", "c"}, {"c", "a"}, {"x", ""}}, "x!", {"a -> b -> c -> a"}},
        // Behind the cycle, and named before it: not on the cycle.
        {{{"a", "y"}, {"y", "z"}, {"z", "y"}}, "!", {"y -> z -> y"}},
        {{{"p", "q"}, {"q", "p, x"}, {"r", "s"}, {"s", "r"}, {"x", ""}},
         "x!",
         {"p -> q -> p", "r -> s -> r"}},
    };
    for (const Case& expected : cases) {
        sink_.Clear();
        EXPECT_EQ(OrderOf(expected.services), expected.order);
        const std::vector<std::string> errors = sink_.LinesAt(LOG_ERR);
        ASSERT_EQ(errors.size(), expected.cycles.size());
        for (size_t i = 0; i < errors.size(); ++i) {
            EXPECT_THAT(errors[i], testing::EndsWith(": " + expected.cycles[i]));
        }
    }
    // Without its second half there is no cycle.
    sink_.Clear();
    EXPECT_EQ(OrderOf({{"a", "b"}, {"b", "a"}}, {"a"}), "a");
    EXPECT_THAT(sink_.Lines(), IsEmpty());
}

TEST(PatternTest, PatternIsRecognisedByItsForm) {
    for (const char* pattern : {"match(a)", "match()", "match((a)", "match([)"}) {
        EXPECT_TRUE(ParseAndDepend::IsDynamicPara(pattern)) << pattern;
    }
    for (const char* plain : {"", "match", "match(", "match(a", "match(a) ", " match(a)",
                              "Match(a)", "/bin/match(a)"}) {
        EXPECT_FALSE(ParseAndDepend::IsDynamicPara(plain)) << plain;
    }
}

TEST(PatternTest, ValueMatchesAsAWhole) {
    struct Case {
        const char* pattern;
        std::string value;
        bool matches;
    };
    const std::vector<Case> cases{
        {"match(abc)", "abc", true},
        {"match(abc)", "abcd", false},
        {"match(abc)", "xabc", false},
        {"match(a|ab)", "ab", true},
        {"match((a|ab)(c|bcd))", "abcd", true},
        {"match(a|b)", "ab", false},
        {"match(^abc$)", "abc", true},
        {"match([0-9]{1,3})", "1234", false},
        {"match([0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12})", "01234567-89ab-cdef-0123-456789abcdef",
         true},
        {"match(/usr/bin/[^/]+)", "/usr/bin/a", true},
        {"match(/usr/bin/[^/]+)", "/usr/bin/../sh", false},
        {"match(a)", "a\n", false},
        {"match(a$)", "a\nb", false},
        {"match()", "", true},
        {"match()", "a", false},
        {"match(.*)", "", true},
        {"match(.*)", std::string(4096, 'x'), true},
        {"match(.*)", std::string(4097, 'x'), false},
        {"match(.*)", std::string("a\0b", 3), false},
        {"match(a)", std::string("a\0", 2), false},
        // Would compile, and match too much, inside "^(...)$".
        {"match(a)|(b)", "a", false},
        {"match([)", "[", false},
        {"match(((a{255}){255}){255})", "a", false},
        {"match((((((((((((((((a+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)", "a", false},
        {"a", "a", false},
        {"", "", false},
    };
    for (const Case& wanted : cases) {
        EXPECT_EQ(ParseAndDepend::IsDynamicParaMatch(wanted.pattern, wanted.value), wanted.matches)
            << wanted.pattern << " on " << wanted.value.substr(0, 60);
    }
    const std::string nested = "match(" + std::string(2000, '(') + std::string(2000, ')') + ")";
    EXPECT_FALSE(ParseAndDepend::IsDynamicParaMatch(nested, ""));
}

}  // namespace
}  // namespace ProcMgr
