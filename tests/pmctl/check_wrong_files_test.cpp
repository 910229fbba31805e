// pmctl check on a folder of files that are wrong in every way: each is named, none passes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>

#include "pmctl/check_manifest.h"
#include "tests/pmctl/run_pmctl.h"

namespace ProcMgr {
namespace {

// The begin of an entry in line 2.
std::string Entry(const std::string& lines) {
    return "services:\n- name: a\n  bin: /bin/sh\n" + lines;
}

// By name: the text, and the line of its error; 0 for an error about the file as a whole.
const std::map<std::string, std::pair<std::string, int>> WRONG = {
    {"alias.yaml", {"services: [*none]\n", 1}},
    {"anchor.yaml", {"services: &s [*s]\n", 1}},
    {"binary.yaml", {std::string("services:\n\x01\x02", 12), 2}},
    {"bom16.yaml", {std::string("\xff\xfes\0e\0", 6), 1}},
    {"bool.yaml", {Entry("  force_term: 1\n"), 4}},
    {"core.yaml", {Entry("  core_affinity: [1024]\n"), 4}},
    {"deep.yaml", {std::string(100000, '['), 1}},
    {"depends.yaml", {Entry("  depends: a\n"), 4}},
    {"empty_key.yaml", {Entry("  uid:\n"), 4}},
    {"env.yaml", {Entry("  env: {A=B: c}\n"), 4}},
    {"entry.yaml", {"services: [a]\n", 1}},
    {"hash.cfg", {"tool=" + std::string(63, 'a') + "\n", 1}},
    {"hash_long.cfg", {std::string(300, 'n') + "=" + std::string(64, 'a') + "\n", 1}},
    {"huge.yaml", {std::string((size_t{1} << 20) + 1, '#'), 0}},
    {"include.yaml", {"# none\ninclude: [none.yaml]\n", 2}},
    {"list.yaml", {"- a\n", 1}},
    {"loop.yaml", {"include: [loop.yaml]\n", 1}},
    {"name.yaml", {"services:\n- {name: a/b, bin: /bin/sh}\n", 2}},
    {"nul.cfg", {std::string("A=b:1\nB=\0", 10), 2}},
    {"pattern.yaml", {Entry("  args: ['match((((a{255}){255}){255})']\n"), 4}},
    {"quote.yaml", {"services: []\na: \"open\n", 2}},
    {"repeated.yaml", {Entry("- {name: a, bin: /bin/sh}\n"), 4}},
    {"repeated_key.yaml", {Entry("  uid: 0\n  uid: 0\n"), 5}},
    {"resources_long.cfg", {"A=b:1\nB=" + std::string(600, 'b') + ":1\n", 2}},
    {"restart.yaml", {Entry("  restart: always\n"), 4}},
    {"self.yaml", {Entry("  depends: [a]\n"), 4}},
    {"text.yaml", {"nothing but text\n", 1}},
    {"two.yaml", {"services: []\n---\nservices: []\n", 2}},
    {"uid.yaml", {Entry("  uid: 4294967295\n"), 4}},
    {"unknown.yaml", {Entry("  depends: [b]\n"), 4}},
};

TEST(PmctlWrongFiles, EachIsNamedWithItsLineAndNonePasses) {
    const Tests::PmctlDirectory directory{};
    for (const auto& [name, file] : WRONG) {
        directory.Write("wrong/" + name, file.first);
    }
    // A bomb of aliases: every entry stands for eight times the entries of the one before.
    std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x]\n";
    for (int i = 1; i < 12; ++i) {
        const std::string alias = "*a" + std::to_string(i - 1);
        bomb += "a" + std::to_string(i) + ": &a" + std::to_string(i) + " [" + alias;
        for (int repeat = 1; repeat < 8; ++repeat) {
            bomb += ", " + alias;
        }
        bomb += "]\n";
    }
    directory.Write("wrong/bomb.yaml", bomb);
    ASSERT_EQ(mkfifo((directory / "wrong/pipe.yaml").c_str(), 0600), 0);
    ASSERT_EQ(symlink("nowhere", (directory / "wrong/link.yaml").c_str()), 0);
    ASSERT_EQ(symlink("/dev/zero", (directory / "wrong/zero.cfg").c_str()), 0);
    ASSERT_EQ(symlink(".", (directory / "wrong/again").c_str()), 0);

    const auto all = directory.Run({"check", "wrong"});
    EXPECT_EQ(all.code, 1);
    EXPECT_EQ(all.error, "");
    for (const auto& [name, file] : WRONG) {
        const std::string place =
            "wrong/" + name + (file.second > 0 ? ":" + std::to_string(file.second) : "");
        EXPECT_NE(("\n" + all.out).find("\n" + place + ": error: "), std::string::npos) << place;
        EXPECT_EQ(directory.Run({"check", "wrong/" + name}).code, 1) << name;
    }
    EXPECT_NE(all.out.find("wrong/bomb.yaml:"), std::string::npos);
    for (const char* name : {"pipe.yaml", "link.yaml", "zero.cfg"}) {
        EXPECT_NE(all.out.find(std::string("wrong/") + name + ": error: "), std::string::npos);
        EXPECT_EQ(directory.Run({"check", std::string("wrong/") + name}).code, 1) << name;
    }
    EXPECT_EQ(directory.Run({"check", "wrong/none.yaml"}).code, 1);
    EXPECT_EQ(directory.Run({"check", "wrong/none.yaml"}).out,
              "wrong/none.yaml: error: cannot be opened: No such file or directory\n"
              "1 file checked: 1 error, 0 warnings, 0 notes\n");
}

// The check goes on where the daemon stops, and before that it finds the same.
TEST(PmctlWrongFiles, TheFirstErrorOfAManifestIsTheOneOfTheDaemon) {
    const Tests::PmctlDirectory directory{};
    const Pmctl::Image here;
    const auto reader = Pmctl::BoardReader(here, false);
    size_t refused = 0;
    for (const auto& [name, file] : WRONG) {
        const std::string path = directory / name;
        directory.Write(name, file.first + "\nservice: 1\n");
        const auto load = PlatformHost::LoadManifests(path, reader);
        const auto check = PlatformHost::CheckManifests(path, reader);
        ASSERT_EQ(check.errors.empty(), load.error.empty()) << name;
        if (!check.errors.empty()) {
            EXPECT_EQ(check.errors.front().Text(), load.error);
            ++refused;
        }
    }
    EXPECT_GT(refused, 20U);
}

// A file and a directory that the user may not read, and a program that the user cannot look at.
TEST(PmctlWrongFiles, WhatAUserCannotRead) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    const Tests::PmctlDirectory directory{};
    directory.Write("closed/in/x.yaml", "services: []\n");
    directory.Write("closed.yaml", "services: []\n", 0600);
    directory.Write("good.yaml", "services:\n- {name: a, bin: " + (directory / "closed/tool}\n"));
    ASSERT_EQ(chmod((directory / "closed").c_str(), 0700), 0);
    ASSERT_EQ(chmod((directory / ".").c_str(), 0755), 0);
    const auto result =
        directory.RunAsNobody({"check", "--no-owner", "closed.yaml", "closed", "good.yaml"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.out,
              "closed: error: the directory may not be read\n"
              "closed.yaml: error: cannot be opened: Permission denied\n"
              "good.yaml:2: note: bin: " +
                  (directory / "closed/tool cannot be examined: ") +
                  (directory / "closed/tool: Permission denied (run as root)\n") +
                  "2 files checked: 2 errors, 0 warnings, 1 note\n");
}

}  // namespace
}  // namespace ProcMgr
