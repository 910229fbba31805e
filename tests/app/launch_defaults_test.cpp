#include "app/launch_defaults.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

#include "main/common/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using LaunchDefaults = IsolatedTest;

TEST_F(LaunchDefaults, HomeOfTheDefaultAccount) {
    const struct {
        std::string passwd;  // empty: there is no file
        std::string home;
        Fakes::LogLine line;
    } cases[] = {
        {"a:x:1000:1000:A,,:/home/a\nb:x:1000:1000::/home/b:/bin/sh\n",
         "/home/a",
         {6, "PROCMGR: InquireHomeEnvVariable finished home env=/home/a"}},
        {"svc:x:1000:100::/home/svc:/bin/sh\n",
         "",
         {4, "PROCMGR: InquireHomeEnvVariable not find 1000:1000 env"}},
        {"", "", {3, "fopen /etc/passwd fail, errno=2"}},
    };
    for (const auto& [passwd, home, line] : cases) {
        const int status = RunIsolated([&, &text = passwd, &expected = home, &logged = line] {
            MountTmpfs("/etc");
            if (!text.empty()) {
                BindFile(text, "/etc/passwd");
            }
            LogCapture::Clear();
            InquireHomeEnvVariable();
            EXPECT_EQ(ProcMgrEnv::GetInstance().GetHome(), expected);
            EXPECT_EQ(LogCapture::Lines(), std::vector{logged});
        });
        EXPECT_EQ(status, 0) << passwd;
    }
}

TEST_F(LaunchDefaults, LockedMemoryLimit) {
    constexpr rlim_t BEFORE = 4096;
    const std::pair<std::string, rlim_t> cases[] = {
        {"OTHER=1\nexport MAX_LOCKED_MEMORY_LIMIT=8192", 8192},
        {"MAX_LOCKED_MEMORY_LIMIT=unlimited\n", RLIM_INFINITY},
        {"MAX_LOCKED_MEMORY_LIMIT=-1\n", BEFORE},
        {"MAX_LOCKED_MEMORY_LIMIT=99999999999999999999999\n", BEFORE},
        {"OTHER=unlimited\n", BEFORE},
    };
    for (const auto& test : cases) {
        const int status = RunIsolated([&] {
            MountTmpfs("/etc");
            BindFile(test.first, "/etc/korin_common_env.conf");
            struct rlimit limit {};
            ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
            const rlim_t highest = limit.rlim_max;
            limit.rlim_cur = BEFORE;
            ASSERT_EQ(setrlimit(RLIMIT_MEMLOCK, &limit), 0);
            LogCapture::Clear();
            SetLockedMemoryLimit();
            ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
            if (test.second > highest && limit.rlim_cur == BEFORE) {
                // Some machines forbid even root to raise a limit. The failure is logged.
                EXPECT_FALSE(LogCapture::Lines().empty());
                return;
            }
            EXPECT_EQ(limit.rlim_cur, test.second);
            EXPECT_EQ(limit.rlim_max, test.second == BEFORE ? highest : test.second);
        });
        EXPECT_EQ(status, 0) << test.first;
    }
}

}  // namespace
}  // namespace ProcMgr::App
