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
    const std::string finished = "PROCMGR: InquireHomeEnvVariable finished home env=";
    const struct {
        std::string passwd;
        std::string home;
        int level;
        std::string line;
    } cases[] = {
        {"a:x:1000:1000:A,,:/home/a\nb:x:1000:1000::/home/b:/bin/sh\n", "/home/a", 6,
         finished + "/home/a"},
        {"# " + std::string(3000, '-') + "\nsvc:x:1000:1000::/home/svc:/bin/sh\n", "/home/svc", 6,
         finished + "/home/svc"},
        {"svc:x:1000:100::/home/svc:/bin/sh\n", "", 4,
         "PROCMGR: InquireHomeEnvVariable not find 1000:1000 env"},
        {"", "", 3, "fopen /etc/passwd fail, errno=2"},
    };
    for (const auto& test : cases) {
        const int status = RunIsolated([&] {
            MountTmpfs("/etc");
            if (!test.passwd.empty()) {
                BindFile(test.passwd, "/etc/passwd");
            }
            LogCapture::Clear();
            InquireHomeEnvVariable();
            EXPECT_EQ(ProcMgrEnv::GetInstance().GetHome(), test.home) << test.passwd;
            const std::vector<Fakes::LogLine> lines = {{test.level, test.line}};
            EXPECT_EQ(LogCapture::Lines(), lines);
        });
        EXPECT_EQ(status, 0);
    }
}

constexpr rlim_t LIMIT_BEFORE = 4096;

// Runs as a child's body.
void CheckLockedMemoryLimit(const std::string& contents, rlim_t limit) {
    MountTmpfs("/etc");
    BindFile(contents, "/etc/korin_common_env.conf");
    struct rlimit before {};
    ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &before), 0);
    before.rlim_cur = LIMIT_BEFORE;
    ASSERT_EQ(setrlimit(RLIMIT_MEMLOCK, &before), 0);
    LogCapture::Clear();
    SetLockedMemoryLimit();
    struct rlimit after {};
    ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &after), 0);
    if (limit > before.rlim_max && after.rlim_cur == LIMIT_BEFORE) {
        // Some places do not let even root raise a limit; that is said.
        EXPECT_FALSE(LogCapture::Lines().empty());
        return;
    }
    EXPECT_EQ(after.rlim_cur, limit);
    EXPECT_EQ(after.rlim_max, limit == LIMIT_BEFORE ? before.rlim_max : limit);
}

TEST_F(LaunchDefaults, LockedMemoryLimit) {
    const std::pair<std::string, rlim_t> cases[] = {
        {"OTHER=1\nexport MAX_LOCKED_MEMORY_LIMIT=8192", 8192},
        {"MAX_LOCKED_MEMORY_LIMIT=unlimited\n", RLIM_INFINITY},
        {"MAX_LOCKED_MEMORY_LIMIT=-1\n", LIMIT_BEFORE},
        {"MAX_LOCKED_MEMORY_LIMIT=99999999999999999999999\n", LIMIT_BEFORE},
        {"OTHER=unlimited\n", LIMIT_BEFORE},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(RunIsolated([&] { CheckLockedMemoryLimit(test.first, test.second); }), 0)
            << test.first;
    }
}

}  // namespace
}  // namespace ProcMgr::App
