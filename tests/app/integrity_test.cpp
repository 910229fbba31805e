#include "app/integrity.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

namespace fs = std::filesystem;

using Fakes::LogCapture;
using Fakes::LogLine;

// Of a file that holds "abc", and of an empty one.
const std::string DIGEST = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string UPPER = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
const std::string EMPTY = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class Integrity : public testing::Test {
protected:
    void SetUp() override {
        char path[] = "/tmp/integrity-XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        directory_ = path;
        LogCapture::Clear();
    }
    void TearDown() override { fs::remove_all(directory_); }

    IntegrityTable Table(const std::string& contents) {
        std::ofstream(directory_ / "bin_hash.cfg") << contents;
        LogCapture::Clear();
        IntegrityTable table;
        table.Load(directory_ / "bin_hash.cfg");
        return table;
    }

    // A program in the test's own directory that holds "abc".
    std::string Program(const std::string& name) {
        std::ofstream(directory_ / name) << "abc";
        return directory_ / name;
    }

    fs::path directory_;
};

TEST_F(Integrity, Digest) {
    struct Case {
        std::string table;
        bool isIntact;
    };
    const Case cases[] = {
        {"app=" + DIGEST + "\n", true},
        {"app=" + EMPTY + "\n", false},
        {"app=" + UPPER + "\n", false},
        {"app=" + DIGEST.substr(0, 63) + "\n", false},
        {"app=" + DIGEST + "0\n", false},
        {"app==" + DIGEST + "\n", false},
        {"app=" + EMPTY + "\nother=" + EMPTY + "\napp=" + DIGEST + "\n", true},
        {"app=" + DIGEST + "\napp=" + EMPTY + "\n", false},
        {"ap=" + EMPTY + "\napps=" + EMPTY + "\nAPP=" + EMPTY + "\n", true},  // not protected
        {"\n\n# app\n\napp=" + DIGEST + "\n", true},
    };
    const std::string app = Program("app");
    for (const Case& test : cases) {
        EXPECT_EQ(Table(test.table).IntegrityProtect(app), test.isIntact) << test.table;
    }
}

TEST_F(Integrity, Paths) {
    struct Case {
        std::string path;
        bool isIntact;
        std::vector<LogLine> lines;
    };
    const std::string app = Program("app");
    const std::string failed = "PROCMGR: IntegrityProtect sha256sum failed for app=";
    const Case cases[] = {
        {"", false, {{LOG_ERR, "PROCMGR: IntegrityProtect appName is empty"}}},
        {"/", false, {{LOG_ERR, "PROCMGR: IntegrityProtect appPath=/ is illegal"}}},
        {"app", false, {{LOG_ERR, "PROCMGR: IntegrityProtect appPath=app is illegal"}}},
        {"a", false, {{LOG_ERR, "PROCMGR: IntegrityProtect appPath=a is illegal"}}},
        {"/nowhere/free//", true, {}},
        // Looked up under the name "app"; what stands there is no directory, and has no digest.
        {app + "///", false, {{LOG_ERR, failed + app + "///"}}},
        {"/nowhere/app", false, {{LOG_ERR, failed + "/nowhere/app"}}},
    };
    const IntegrityTable table = Table("app=" + DIGEST + "\na=" + DIGEST + "\n");
    for (const Case& test : cases) {
        LogCapture::Clear();
        EXPECT_EQ(table.IntegrityProtect(test.path), test.isIntact) << test.path;
        EXPECT_EQ(LogCapture::Lines(), test.lines) << test.path;
    }
}

TEST_F(Integrity, APathIsNoShellText) {
    const std::string mark = (directory_ / "mark").string();
    fs::create_directory(directory_ / "a b");
    for (const std::string name :
         {"a b/app", "app;touch mark", "app$(touch mark)", "app`touch mark`", "app'",
          "'app'touch mark'", "app\"q\"", "app|touch mark", "app&touch mark", "app>mark", "$HOME",
          "app*", "~app"}) {
        const std::string path = Program(name);
        const std::string file = fs::path(path).filename();
        const auto before = fs::current_path();
        fs::current_path(directory_);
        EXPECT_TRUE(Table(file + "=" + DIGEST + "\n").IntegrityProtect(path)) << name;
        EXPECT_FALSE(Table(file + "=" + EMPTY + "\n").IntegrityProtect(path)) << name;
        fs::current_path(before);
        EXPECT_FALSE(fs::exists(mark)) << name;
    }
}

TEST_F(Integrity, WithoutADigestToolThereAreFiveAttempts) {
    const std::string app = Program("app");
    const IntegrityTable table = Table("app=" + DIGEST + "\n");
    const char* const path = getenv("PATH");
    const std::string before = path == nullptr ? "" : path;
    setenv("PATH", directory_.c_str(), 1);
    EXPECT_FALSE(table.IntegrityProtect(app));
    // A tool that says nothing, and counts how often it is asked.
    std::ofstream(directory_ / "sha256sum") << "#!/bin/sh\necho >>" << directory_ / "asked" << '\n';
    fs::permissions(directory_ / "sha256sum", fs::perms::owner_all);
    std::ofstream(directory_ / "cut") << "#!/bin/sh\nwhile read -r line; do :; done\n";
    fs::permissions(directory_ / "cut", fs::perms::owner_all);
    EXPECT_FALSE(table.IntegrityProtect(app));
    setenv("PATH", before.c_str(), 1);
    const LogLine failed{LOG_ERR, "PROCMGR: IntegrityProtect sha256sum failed for app=" + app};
    EXPECT_EQ(LogCapture::Lines(), (std::vector<LogLine>{failed, failed}));
    EXPECT_EQ(fs::file_size(directory_ / "asked"), 5U);
}

// As when the reaper collects the shell before its exit status is asked for.
TEST_F(Integrity, TheVerdictIsThatOfTheOutput) {
    const std::string app = Program("app");
    auto* const before = signal(SIGCHLD, SIG_IGN);
    EXPECT_TRUE(Table("app=" + DIGEST + "\n").IntegrityProtect(app));
    EXPECT_FALSE(Table("app=" + EMPTY + "\n").IntegrityProtect(app));
    signal(SIGCHLD, before);
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(Integrity, LinesWithoutNameOrDigest) {
    const std::string a300(300, 'a');
    struct Case {
        std::string contents;
        std::vector<std::string> reported;
    };
    const Case cases[] = {
        {"app=\n=abc\napp\n=\n", {"app=", "=abc", "app", "="}},
        {"app=\r\nother=" + DIGEST + "\n", {"app="}},
        {"x=" + a300.substr(0, 253) + "\n", {}},
        {a300.substr(0, 255) + "\nx=1\n", {a300.substr(0, 255)}},
        {"x=" + a300.substr(0, 298) + "\ny=1\n", {a300.substr(0, 45)}},
        {a300, {a300.substr(0, 255), a300.substr(0, 45)}},
        {"app=a=\napp=\nx=a=b\n", {"app=a=", "app="}},
    };
    for (const Case& test : cases) {
        Table(test.contents);
        std::vector<LogLine> expected;
        for (const std::string& text : test.reported) {
            expected.push_back(
                {LOG_ERR, "PROCMGR: hash config string=" + text + " format is false"});
        }
        EXPECT_EQ(LogCapture::Lines(), expected) << test.contents;
    }
}

TEST_F(Integrity, WithoutAFileNothingIsProtected) {
    IntegrityTable table;
    table.Load("/nowhere/hash.cfg");
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector<LogLine>{{LOG_WARNING,
                                     "PROCMGR: IntegrityProtect hash config file=/nowhere/hash.cfg "
                                     "is not exist"}}));
    EXPECT_TRUE(table.IntegrityProtect("/nowhere/app"));
}

}  // namespace
}  // namespace ProcMgr::App
