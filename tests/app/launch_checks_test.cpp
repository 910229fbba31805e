// Checks and defaults of launches, with private versions of the files that they read.
#include "app/launch_checks.h"

#include <sys/resource.h>

#include "app/launch_defaults.h"
#include "main/common/proc_mgr_env.h"
#include "tests/app/app_test_support.h"
#include "tests/support/isolated.h"

namespace ProcMgr::App {
namespace {

using LaunchChecks = IsolatedTest;
using LaunchDefaults = IsolatedTest;

constexpr const char* PROGRAM = "/run/program;1";
constexpr gid_t FILE_GROUP = 2000;

// 1001 and 1003 have no group but their own, 1002 is a member of group 2000, 1004 has that as its
// own group. 1127 and 1128 have as many groups as their names state, 1129 has one too many; the
// first of these groups is 3001.
void LayUserDatabase() {
    std::string users = "u1004:x:1004:2000::/:/bin/sh\n";
    for (const std::string uid : {"1001", "1002", "1003", "1127", "1128", "1129"}) {
        users.append("u" + uid + ":x:" + uid + ":" + uid + "::/:/bin/sh\n");
    }
    std::string groups = "members:x:2000:u1002\n";
    for (int number = 1; number < 129; ++number) {
        groups += "g" + std::to_string(number) + ":x:" + std::to_string(3000 + number) + ":u1129" +
                  (number < 128 ? ",u1128" : "") + (number < 127 ? ",u1127" : "") + "\n";
    }
    MountTmpfs("/etc");
    BindFile(users, "/etc/passwd");
    BindFile(groups, "/etc/group");
    BindFile("passwd: files\ngroup: files\n", "/etc/nsswitch.conf");
}

void LayProgram(mode_t mode, gid_t group) {
    MountTmpfs("/run");
    Tests::WriteFile(PROGRAM, "", mode);
    ASSERT_EQ(chown(PROGRAM, 1001, group), 0);
}

TEST_F(LaunchChecks, ArgumentsAndAbsentPrograms) {
    const int status = RunIsolated([] {
        LayProgram(0777, FILE_GROUP);
        ASSERT_EQ(symlink("/run/absent", "/run/dangling"), 0);
        UserGroupsCache users;
        LogCapture::Clear();
        // The arguments are checked before the program.
        for (const char illegal : std::string("|;><`&()$")) {
            EXPECT_EQ(
                CheckChildProParas("svc", "/run/absent", 0, {"-x", {'a', illegal, 'b'}}, users),
                StartRefusal::ARGUMENTS);
        }
        const LogLine refusal{LOG_ERR,
                              "PROCMGR : CheckChildProParas App=svc arguments include illegal str"};
        EXPECT_EQ(LogCapture::Lines(), Lines(9, refusal));
        EXPECT_EQ(CheckChildProParas("svc", PROGRAM, 0, {"", "a b", "'\"*?~#!{}[]\\\n%"}, users),
                  StartRefusal::NONE);
        for (const std::string path : {"", "/run/absent", "/run/dangling"}) {
            EXPECT_EQ(CheckChildProParas("svc", path, 0, {}, users), StartRefusal::MISSING);
            EXPECT_EQ(LogCapture::Lines().back().text,
                      "PROCMGR : Start App=svc failed, binPath=" + path + " is not existed !!!");
        }
    });
    EXPECT_EQ(status, 0);
}

TEST_F(LaunchChecks, Permissions) {
    constexpr uint32_t UNKNOWN = 7777;
    const struct {
        uint32_t uid;
        mode_t mode;
        gid_t group;
        std::string refusal;  // the log line after the path; empty: the start may go on
    } cases[] = {
        {0, 0001, FILE_GROUP, ""},
        {0, 0666, FILE_GROUP, " uid=1001"},
        {1001, 0100, FILE_GROUP, ""},
        {1001, 0677, FILE_GROUP, " uid=1001"},
        {1002, 0010, FILE_GROUP, ""},
        {1002, 0707, FILE_GROUP, " gid=2000"},
        {1004, 0010, FILE_GROUP, ""},
        {1003, 0777, FILE_GROUP, " uid=1001, gid=2000"},
        {1003, 0010, 0, ""},  // fewer than 128 groups: the user counts as a member of group 0
        {UNKNOWN, 0010, 0, " uid=1001, gid=0"},
        {1127, 0010, 3126, ""},
        {1127, 0010, 3127, " uid=1001, gid=3127"},
        {1128, 0010, 3127, ""},
        {1128, 0010, 0, " uid=1001, gid=0"},
        {1129, 0010, 3001, " uid=1001, gid=3001"},
    };
    const int status = RunIsolated([&] {
        LayUserDatabase();
        for (const auto& [uid, mode, group, refusal] : cases) {
            LayProgram(mode, group);
            UserGroupsCache users;
            LogCapture::Clear();
            EXPECT_EQ(CheckChildProParas("svc", PROGRAM, uid, {}, users),
                      refusal.empty()  ? StartRefusal::NONE
                      : uid == UNKNOWN ? StartRefusal::NO_USER
                                       : StartRefusal::NOT_EXECUTABLE)
                << uid;
            const std::string who = uid == 0 ? " is root" : "=" + std::to_string(uid);
            EXPECT_EQ(LogCapture::Contains(LOG_ERR, "PROCMGR : Start App=svc failed, cfg uid" +
                                                        who + ", but binPath=" + PROGRAM + refusal +
                                                        " not have x permission !!"),
                      !refusal.empty())
                << uid;
        }
    });
    EXPECT_EQ(status, 0);
}

TEST_F(LaunchDefaults, HomeAndLockedMemoryLimit) {
    constexpr rlim_t BEFORE = 4096;
    const std::pair<std::string, rlim_t> cases[] = {
        {"-1\n", BEFORE},
        {"99999999999999999999999\n", BEFORE},
        {"unlimited\n", RLIM_INFINITY},
        {"8192", 8192},
    };
    const int status = RunIsolated([&] {
        MountTmpfs("/etc");
        Tests::WriteFile("/etc/passwd",
                         "a:x:1000:1000:A,,:/home/a\nb:x:1000:1000::/home/b:/bin/sh\n");
        InquireHomeEnvVariable();
        EXPECT_EQ(ProcMgrEnv::GetInstance().GetHome(), "/home/a");
        for (const auto& [value, expected] : cases) {
            Tests::WriteFile("/etc/korin_common_env.conf",
                             "OTHER=1\nexport MAX_LOCKED_MEMORY_LIMIT=" + value);
            struct rlimit limit {};
            ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
            const rlim_t highest = limit.rlim_max;
            limit.rlim_cur = BEFORE;
            ASSERT_EQ(setrlimit(RLIMIT_MEMLOCK, &limit), 0);
            LogCapture::Clear();
            SetLockedMemoryLimit();
            ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
            if (expected > highest && limit.rlim_cur == BEFORE) {
                // Some machines forbid even root to raise a limit. The failure is logged.
                EXPECT_FALSE(LogCapture::Lines().empty());
                continue;
            }
            EXPECT_EQ(limit.rlim_cur, expected) << value;
            EXPECT_EQ(limit.rlim_max, expected == BEFORE ? highest : expected) << value;
        }
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ProcMgr::App
