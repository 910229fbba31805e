#include "app/integrity.h"

#include <sys/wait.h>

#include <thread>

#include "tests/app/app_test_support.h"
#include "tests/support/files.h"

namespace ProcMgr::App {
namespace {

// The digest of a file that holds "abc", and of an empty file.
const std::string DIGEST = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string EMPTY = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class Integrity : public testing::Test {
protected:
    std::unique_ptr<IntegrityTable> Table(const std::string& contents) {
        Tests::WriteFile(directory_ / "bin_hash.cfg", contents);
        LogCapture::Clear();
        auto table = std::make_unique<IntegrityTable>();
        table->Load(directory_ / "bin_hash.cfg");
        return table;
    }

    // A program in the test's own directory that holds "abc".
    std::string Program(const std::string& name) {
        Tests::WriteFile(directory_ / name, "abc");
        return directory_ / name;
    }

    Tests::TempDirectory directory_;
};

TEST_F(Integrity, Digest) {
    const std::pair<std::string, bool> cases[] = {
        {"app=" + DIGEST + "\n", true},
        {"app=" + EMPTY + "\n", false},
        {"app=" + DIGEST + "0\n", false},
        {"app=" + EMPTY + "\nother=" + EMPTY + "\napp=" + DIGEST + "\n", true},
        {"ap=" + EMPTY + "\napps=" + EMPTY + "\nAPP=" + EMPTY + "\n", true},  // not protected
    };
    const std::string app = Program("app");
    for (const auto& [table, isIntact] : cases) {
        EXPECT_EQ(Table(table)->IntegrityProtect(app), isIntact) << table;
    }
}

TEST_F(Integrity, Paths) {
    const std::string app = Program("app");
    const std::pair<std::string, std::string> cases[] = {
        {"", "appName is empty"},
        {"/", "appPath=/ is illegal"},
        {"app", "appPath=app is illegal"},
        // Found in the table as "app"; with the slashes the file cannot be read.
        {app + "///", "sha256sum failed for app=" + app + "///"},
    };
    const auto table = Table("app=" + DIGEST + "\na=" + DIGEST + "\n");
    for (const auto& [path, refusal] : cases) {
        LogCapture::Clear();
        EXPECT_FALSE(table->IntegrityProtect(path)) << path;
        EXPECT_EQ(LogCapture::Lines(), (Lines{{LOG_ERR, "PROCMGR: IntegrityProtect " + refusal}}));
    }
    EXPECT_TRUE(table->IntegrityProtect("/nowhere/free//"));
}

TEST_F(Integrity, APathIsNotRunAsAShellCommand) {
    std::filesystem::current_path(directory_.Path());
    for (const std::string name :
         {"a b", "app;touch mark", "app$(touch mark)", "app`touch mark`", "'app'touch mark'",
          "app\"q\"", "app|touch mark", "app>mark", "$HOME", "app*", "~app"}) {
        const std::string path = Program(name);
        EXPECT_TRUE(Table(name + "=" + DIGEST + "\n")->IntegrityProtect(path)) << name;
        EXPECT_FALSE(Table(name + "=" + EMPTY + "\n")->IntegrityProtect(path)) << name;
        EXPECT_FALSE(std::filesystem::exists("mark")) << name;
    }
    std::filesystem::current_path("/");
}

TEST_F(Integrity, AFileThatBlocksItsReaderIsGivenUp) {
    const std::string pipe = directory_ / "app";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0755), 0);
    EXPECT_FALSE(Table("app=" + DIGEST + "\n")->IntegrityProtect(pipe));
    EXPECT_TRUE(LogCapture::ContainsPart(LOG_ERR, " is no regular file"));
    // The file may also become a pipe after the check of its kind.
    DigestRunner digests;
    const SteadyTime begin = std::chrono::steady_clock::now();
    EXPECT_EQ(digests.Run(pipe, begin + std::chrono::milliseconds(100)).outcome,
              DigestRunner::Outcome::TOO_LONG);
    std::thread canceller([&] { digests.Cancel(); });
    EXPECT_EQ(digests.Run(pipe, begin + std::chrono::hours(1)).outcome,
              DigestRunner::Outcome::CANCELLED);
    canceller.join();
    int killed = 0;
    int status = 0;
    for (pid_t pid = wait(&status); pid > 0; pid = wait(&status)) {
        killed += digests.TakeExit(pid) && status == SIGKILL ? 1 : 0;
    }
    EXPECT_EQ(killed, 2);
}

TEST_F(Integrity, LinesWithoutNameOrDigest) {
    const std::string a300(300, 'a');  // is read in two pieces
    Table("app=\n=abc\napp\nx=a=b\n" + a300 + "\n");
    Lines expected;
    for (const std::string& text : {std::string("app="), std::string("=abc"), std::string("app"),
                                    a300.substr(0, 255), a300.substr(0, 45)}) {
        expected.push_back({LOG_ERR, "PROCMGR: hash config string=" + text + " format is false"});
    }
    EXPECT_EQ(LogCapture::Lines(), expected);
}

}  // namespace
}  // namespace ProcMgr::App
