#include "app/launch_checks.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr::App {
namespace {

using LaunchChecks = IsolatedTest;

using Fakes::LogCapture;
using Fakes::LogLine;

constexpr const char* DIRECTORY = "/run";
constexpr const char* PROGRAM = "/run/program;1";
constexpr uid_t OWNER = 1001;
constexpr gid_t FILE_GROUP = 2000;

// Users: 1001 and 1003 have no group but their own, 1002 is a member of group 2000, 1004 has that
// as its own group, 1128 and 1127 have so many groups, 1129 one too many. The first group of many
// is 3001.
void LayUserDatabase() {
    std::string users;
    for (const std::string uid : {"1001", "1002", "1003", "1127", "1128", "1129"}) {
        users.append("u" + uid + ":x:" + uid + ":" + uid + "::/:/bin/sh\n");
    }
    users += "u1004:x:1004:2000::/:/bin/sh\n";
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
    MountTmpfs(DIRECTORY);
    std::ofstream(PROGRAM).flush();
    ASSERT_EQ(chown(PROGRAM, OWNER, group), 0);
    ASSERT_EQ(chmod(PROGRAM, mode), 0);
}

TEST_F(LaunchChecks, ArgumentsAndAbsentPrograms) {
    const int status = RunIsolated([] {
        LayProgram(0777, FILE_GROUP);
        ASSERT_EQ(symlink("/run/absent", "/run/dangling"), 0);
        UserGroupsCache users;
        LogCapture::Clear();
        // Told before the program is looked at.
        for (const std::string illegal :
             {"|", ";", ">", "<", ">>", "`", "||", "&&", "&", "(", ")", "$", "a>b"}) {
            EXPECT_FALSE(CheckChildProParas("svc", "/run/absent", 0, {"-x", illegal}, users));
            EXPECT_FALSE(CheckChildProParas("svc", PROGRAM, 0, {"a" + illegal + "b", ""}, users));
        }
        const LogLine refusal{LOG_ERR,
                              "PROCMGR : CheckChildProParas App=svc arguments include illegal str"};
        EXPECT_EQ(LogCapture::Lines(), std::vector<LogLine>(26, refusal));
        EXPECT_TRUE(CheckChildProParas("svc", PROGRAM, 0, {"", "a b", "'\"*?~#!{}[]\\\n%"}, users));
        for (const std::string path : {"", "/run/absent", "/run/dangling"}) {
            EXPECT_FALSE(CheckChildProParas("svc", path, 0, {}, users));
            EXPECT_EQ(LogCapture::Lines().back().text,
                      "PROCMGR : Start App=svc failed, binPath=" + path + " is not existed !!!");
        }
    });
    EXPECT_EQ(status, 0);
}

TEST_F(LaunchChecks, Permissions) {
    struct Case {
        uint32_t uid;
        mode_t mode;
        gid_t group;
        std::string refusal;  // after the path; empty: the start may go on
    };
    const std::string noX = " not have x permission !!";
    const std::string foreign = " uid=1001, gid=2000" + noX;
    const std::string groupless = " gid=2000" + noX;
    const Case cases[] = {
        {0, 0001, FILE_GROUP, ""},
        {0, 0666, FILE_GROUP, " uid=1001" + noX},
        {1001, 0100, FILE_GROUP, ""},
        {1001, 0677, FILE_GROUP, " uid=1001" + noX},
        {1002, 0010, FILE_GROUP, ""},
        {1002, 0707, FILE_GROUP, groupless},
        {1004, 0010, FILE_GROUP, ""},
        {1003, 0777, FILE_GROUP, foreign},
        {1003, 0010, 0, ""},  // with free places in the list group 0 is there
        {7777, 0010, 0, " uid=1001, gid=0" + noX},
        {1127, 0010, 3126, ""},
        {1127, 0010, 3127, " uid=1001, gid=3127" + noX},
        {1128, 0010, 3127, ""},
        {1128, 0010, 0, " uid=1001, gid=0" + noX},
        {1129, 0010, 3001, " uid=1001, gid=3001" + noX},
    };
    for (const Case& test : cases) {
        const int status = RunIsolated([&] {
            LayUserDatabase();
            LayProgram(test.mode, test.group);
            UserGroupsCache users;
            LogCapture::Clear();
            EXPECT_EQ(CheckChildProParas("svc", PROGRAM, test.uid, {}, users),
                      test.refusal.empty());
            std::vector<LogLine> lines;
            if (test.uid == 7777) {
                lines.push_back({LOG_ERR,
                                 "PROCMGR : Start App=svc failed, uid=7777 is not in the user "
                                 "database, error=0"});
            }
            if (!test.refusal.empty()) {
                const std::string who = test.uid == 0 ? " is root" : "=" + std::to_string(test.uid);
                lines.push_back({LOG_ERR, "PROCMGR : Start App=svc failed, cfg uid" + who +
                                              ", but binPath=" + PROGRAM + test.refusal});
            }
            EXPECT_EQ(LogCapture::Lines(), lines);
        });
        EXPECT_EQ(status, 0) << test.uid << ' ' << std::oct << test.mode;
    }
}

}  // namespace
}  // namespace ProcMgr::App
