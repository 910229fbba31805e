#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/manifest.h"

namespace ProcMgr {
namespace {

class KvsTypeYamlTest : public testing::Test {
protected:
    bool Load(const std::string& text) {
        char path[] = "/tmp/kvs-test-XXXXXX";
        const int fd = mkstemp(path);
        std::ofstream(path) << text;
        close(fd);
        const bool loaded = top_.InitYamlNode(path);
        unlink(path);
        return loaded;
    }

    KvsTypeYaml top_;
};

TEST_F(KvsTypeYamlTest, WalksAFile) {
    ASSERT_TRUE(Load("watch_dog:\n  enable: Yes\n  timeout: 030s\nempty:\nlist: [a, {b: c}]\n"));
    KvsTypeYaml section;
    KvsTypeYaml node;
    ASSERT_TRUE(top_.GetSubKvs("watch_dog", section));
    ASSERT_TRUE(section.GetSubKvs("enable", node));
    EXPECT_TRUE(node.GetBool());
    ASSERT_TRUE(section.GetSubKvs("timeout", node));
    EXPECT_EQ(node.GetString(), "030s");
    EXPECT_FALSE(node.GetBool());
    EXPECT_FALSE(section.GetSubKvs("missing", node));

    // A section without content is there and has no keys.
    ASSERT_TRUE(top_.GetSubKvs("empty", section));
    EXPECT_FALSE(section.GetSubKvs("enable", node));

    ASSERT_TRUE(top_.GetSubKvs("list", section));
    EXPECT_EQ(section.GetSize(), 2U);
    EXPECT_FALSE(section.GetElement(2, node));
    // A node may be replaced by its own child, and outlives the top of its file.
    ASSERT_TRUE(section.GetElement(1, section));
    ASSERT_TRUE(section.GetSubKvs("b", section));
    EXPECT_FALSE(Load("a: ["));
    EXPECT_EQ(section.GetString(), "c");
    EXPECT_FALSE(top_.GetSubKvs("list", node));
}

TEST_F(KvsTypeYamlTest, FilesThatCannotBeUsed) {
    EXPECT_FALSE(top_.InitYamlNode("/nonexistent/file.yaml"));
    EXPECT_FALSE(top_.InitYamlNode("/tmp"));
    for (const char* broken : {"a: [", "a: 1\na: 2\n", "a: 1\n---\nb: 2\n", "\tx: 1"}) {
        EXPECT_FALSE(Load(broken)) << broken;
    }
    KvsTypeYaml node;
    EXPECT_TRUE(Load(""));
    EXPECT_FALSE(top_.GetSubKvs("a", node));
}

}  // namespace
}  // namespace ProcMgr
