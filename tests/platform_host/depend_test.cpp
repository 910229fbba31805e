#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/manifest.h"

namespace ProcMgr {
namespace {

using testing::ElementsAre;

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

TEST(PatternTest, ValueMatchesAsAWhole) {
    struct Case {
        const char* pattern;
        std::string value;
        bool matches;
    };
    const std::vector<Case> cases{
        {"match(abc)", "abcd", false},
        {"match((a|ab)(c|bcd))", "abcd", true},
        {"match(a|b)", "ab", false},
        {"match([0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12})", "01234567-89ab-cdef-0123-456789abcdef",
         true},
        {"match(/usr/bin/[^/]+)", "/usr/bin/../sh", false},
        {"match(a)", "a\n", false},
        {"match(.*)", std::string(4096, 'x'), true},
        {"match(.*)", std::string(4097, 'x'), false},
        {"match(.*)", std::string("a\0b", 3), false},
        // Would compile, and match too much, inside "^(...)$".
        {"match(a)|(b)", "a", false},
        {"match([)", "[", false},
        {"match(((a{255}){255}){255})", "a", false},
        {"match((((((((((((((((a+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)", "a", false},
        {"a", "a", false},  // no pattern
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
