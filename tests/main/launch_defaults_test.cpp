#include "app/launch_defaults.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

#include "main/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/main/isolated.h"

namespace ProcMgr::App {
namespace {

using LaunchDefaults = IsolatedTest;

using Fakes::LogCapture;

TEST_F(LaunchDefaults, HomeOfTheDefaultAccount) {
    const std::string root = "root:x:0:0:root:/root:/bin/bash\n";
    const std::pair<std::string, std::string> cases[] = {
        {root + "svc:x:1000:1000:Some One,,,:/home/svc:/bin/sh\n", "/home/svc"},
        {root + "svc:x:1000:1000::/home/svc", "/home/svc"},
        {"a:x:1000:1000::/home/a:/bin/sh\nb:x:1000:1000::/home/b:/bin/sh\n", "/home/a"},
        {"# " + std::string(3000, '-') + "\nsvc:x:1000:1000::/home/svc:/bin/sh\n", "/home/svc"},
        {root + "svc:x:1000:100::/home/svc:/bin/sh\n", ""},
    };
    for (const auto& testCase : cases) {
        const int status = RunIsolated([&] {
            const auto& [passwd, home] = testCase;
            BindFile(passwd, "/etc/passwd");
            LogCapture::Clear();
            InquireHomeEnvVariable();
            EXPECT_EQ(ProcMgrEnv::GetInstance().GetHome(), home) << passwd;
            const std::string line =
                home.empty() ? "not find 1000:1000 env" : "finished home env=" + home;
            EXPECT_TRUE(LogCapture::Contains(home.empty() ? 4 : 6,
                                             "PROCMGR: InquireHomeEnvVariable " + line));
        });
        EXPECT_EQ(status, 0);
    }
}

TEST_F(LaunchDefaults, WithoutAUserDatabaseThereIsNoHome) {
    const int status = RunIsolated([] {
        MountTmpfs("/etc");
        LogCapture::Clear();
        InquireHomeEnvVariable();
        EXPECT_EQ(ProcMgrEnv::GetInstance().GetHome(), "");
        const auto lines = LogCapture::Lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].text, "fopen /etc/passwd fail, errno=2");
    });
    EXPECT_EQ(status, 0);
}

struct LimitCase {
    std::string contents;
    rlim_t limit;
};

constexpr rlim_t LIMIT_BEFORE = 4096;

// Runs as a child's body.
void CheckLockedMemoryLimit(const LimitCase& test) {
    MountTmpfs("/etc");
    BindFile(test.contents, "/etc/korin_common_env.conf");
    struct rlimit before {};
    ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &before), 0);
    before.rlim_cur = LIMIT_BEFORE;
    ASSERT_EQ(setrlimit(RLIMIT_MEMLOCK, &before), 0);
    LogCapture::Clear();
    SetLockedMemoryLimit();
    struct rlimit after {};
    ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &after), 0);
    if (test.limit > before.rlim_max && after.rlim_cur == LIMIT_BEFORE) {
        // Some places do not let even root raise a limit; that is said.
        EXPECT_FALSE(LogCapture::Lines().empty());
        return;
    }
    EXPECT_EQ(after.rlim_cur, test.limit) << test.contents;
    EXPECT_EQ(after.rlim_max, test.limit == LIMIT_BEFORE ? before.rlim_max : test.limit);
}

TEST_F(LaunchDefaults, LockedMemoryLimit) {
    const LimitCase cases[] = {
        {"MAX_LOCKED_MEMORY_LIMIT=65536\n", 65536},
        {"OTHER=1\nexport MAX_LOCKED_MEMORY_LIMIT=8192", 8192},
        {"MAX_LOCKED_MEMORY_LIMIT=unlimited\n", RLIM_INFINITY},
        {"MAX_LOCKED_MEMORY_LIMIT=-1\n", LIMIT_BEFORE},
        {"MAX_LOCKED_MEMORY_LIMIT=99999999999999999999999\n", LIMIT_BEFORE},
        {"OTHER=unlimited\n", LIMIT_BEFORE},
    };
    for (const LimitCase& test : cases) {
        EXPECT_EQ(RunIsolated([&] { CheckLockedMemoryLimit(test); }), 0) << test.contents;
    }
}

}  // namespace
}  // namespace ProcMgr::App
