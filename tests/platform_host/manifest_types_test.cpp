// The parts of the manifest library beside the parsing of manifests: the graph itself, patterns and
// the reader of other YAML files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "platform/manifest.h"
#include "tests/support/files.h"

namespace ProcMgr {
namespace {

using testing::ElementsAre;

TEST(DependGraphTest, PopReleasesOnlyWhatWaited) {
    DependGraph graph;
    graph.Add("c", {"a", "b"});
    graph.Add("a", {});
    graph.Add("b", {"a"});
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
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"match(abc)", "abcd", false},
        {"match(ab)", "xab", false},
        {"match((a|ab)(c|bcd))", "abcd", true},
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
        {"match(" + std::string(2000, '(') + std::string(2000, ')') + ")", "", false},
        {"a", "a", false},  // no pattern
    };
    for (const auto& [pattern, value, matches] : cases) {
        EXPECT_EQ(ParseAndDepend::IsDynamicParaMatch(pattern, value), matches)
            << pattern << " on " << value.substr(0, 60);
    }
}

bool Load(KvsTypeYaml& top, const std::string& text) {
    const Tests::TempDirectory directory;
    Tests::WriteFile(directory / "file.yaml", text);
    return top.InitYamlNode(directory / "file.yaml");
}

TEST(KvsTypeYamlTest, WalksAFile) {
    KvsTypeYaml top;
    ASSERT_TRUE(Load(top, "watch_dog:\n  enable: Yes\n  timeout: 030s\nlist: [a, {b: c}]\n"));
    KvsTypeYaml section;
    KvsTypeYaml node;
    ASSERT_TRUE(top.GetSubKvs("watch_dog", section));
    ASSERT_TRUE(section.GetSubKvs("enable", node));
    EXPECT_TRUE(node.GetBool());
    ASSERT_TRUE(section.GetSubKvs("timeout", node));
    EXPECT_EQ(node.GetString(), "030s");
    EXPECT_FALSE(node.GetBool());

    ASSERT_TRUE(top.GetSubKvs("list", section));
    EXPECT_EQ(section.GetSize(), 2U);
    EXPECT_FALSE(section.GetElement(2, node));
    // A node may be replaced by its own child, and stays valid after the top of its file has
    // changed.
    ASSERT_TRUE(section.GetElement(1, section));
    ASSERT_TRUE(section.GetSubKvs("b", section));
    EXPECT_FALSE(Load(top, "a: ["));
    EXPECT_FALSE(top.InitYamlNode("/dev/null")) << "not a regular file";
    EXPECT_EQ(section.GetString(), "c");
    EXPECT_FALSE(top.GetSubKvs("list", node));
}

}  // namespace
}  // namespace ProcMgr
