#include "app/launch_defaults.h"

#include <sys/resource.h>

#include "main/common/proc_mgr_env.h"
#include "tests/app/app_test_support.h"
#include "tests/support/isolated.h"

namespace ProcMgr::App {
namespace {

using LaunchDefaults = IsolatedTest;

TEST_F(LaunchDefaults, HomeOfTheDefaultAccount) {
    const std::tuple<std::string, std::string, LogLine> cases[] = {
        {"", "", {3, "fopen /etc/passwd fail, errno=2"}},
        {"svc:x:1000:100::/home/svc:/bin/sh\n",
         "",
         {4, "PROCMGR: InquireHomeEnvVariable not find 1000:1000 env"}},
        {"a:x:1000:1000:A,,:/home/a\nb:x:1000:1000::/home/b:/bin/sh\n",
         "/home/a",
         {6, "PROCMGR: InquireHomeEnvVariable finished home env=/home/a"}},
    };
    const int status = RunIsolated([&] {
        MountTmpfs("/etc");
        for (const auto& [passwd, home, line] : cases) {
            if (!passwd.empty()) {
                Tests::WriteFile("/etc/passwd", passwd);
            }
            LogCapture::Clear();
            InquireHomeEnvVariable();
            EXPECT_EQ(ProcMgrEnv::GetInstance().GetHome(), home);
            EXPECT_EQ(LogCapture::Lines(), Lines{line});
        }
    });
    EXPECT_EQ(status, 0);
}

TEST_F(LaunchDefaults, LockedMemoryLimit) {
    constexpr rlim_t BEFORE = 4096;
    const std::pair<std::string, rlim_t> cases[] = {
        {"-1\n", BEFORE},
        {"99999999999999999999999\n", BEFORE},
        {"unlimited\n", RLIM_INFINITY},
        {"8192", 8192},
    };
    const int status = RunIsolated([&] {
        MountTmpfs("/etc");
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
