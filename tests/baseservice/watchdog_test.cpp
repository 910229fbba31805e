#include "baseservice/watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "baseservice/watchdog_sys.h"
#include "main/common/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

using Fakes::LogLine;
using Strings = std::vector<std::string>;

const std::string KO = "/var/sbsa_gwdt.ko";
const std::string DEVICE = "/local/dev/veskutil_watchdog";
const std::string PARAMETERS = "timeout=60 action=2 disable_on_poweroff=1";
const LogLine DISABLED{LOG_WARNING, "Watchdog is disabled by cmdline parameter. Do not insert ko"};
const LogLine OPENED{LOG_INFO, "Open watchdog ko successfully, watchdog ko=" + KO + ", fd=12"};
const LogLine FEED_OPENED{LOG_INFO,
                          "Enable feeding dog, open device=" + DEVICE + " successfully, fd=12"};

ProcMgrSettings Enabled() {
    ProcMgrSettings settings;
    settings.watchDogEnable = true;
    return settings;
}

void Reset() {
    WatchDogSys::Calls() = {};
    Fakes::LogCapture::Clear();
    ProcMgrEnv::GetInstance().SetDisableWatchDog(false);
}

// Compares the calls and the log lines since the last Reset(), which this function ends with.
void Expect(const Strings& calls, const std::vector<LogLine>& lines) {
    EXPECT_EQ(WatchDogSys::Calls().Calls(), calls);
    EXPECT_EQ(Fakes::LogCapture::Lines(), lines);
    Reset();
}

class WatchDog : public testing::Test {
protected:
    void SetUp() override { Reset(); }
};
using WatchDogModules = IsolatedTest;

TEST_F(WatchDog, NothingIsLoadedWhenItIsDisabledOrWithoutAFile) {
    EXPECT_FALSE(InsertWatchDogKo(ProcMgrSettings{}));
    Expect({}, {{LOG_WARNING, "sbsa_gwdt is disable, so not need insert"}});
    ProcMgrEnv::GetInstance().SetDisableWatchDog(true);
    EXPECT_FALSE(InsertWatchDogKo(Enabled()));
    EXPECT_FALSE(InsmodKo(Enabled())) << "also without the check of the caller above";
    Expect({}, {DISABLED, DISABLED});
    WatchDogSys::Calls().Fail("access", ENOENT);
    EXPECT_FALSE(InsertWatchDogKo(Enabled()));
    Expect({"access " + KO + " 0"}, {{LOG_ERR, KO + " is not existed errno=2"}});
}

TEST_F(WatchDogModules, ALoadedModuleIsNotLoadedAgain) {
    const std::string rest = " 16384 0 - Live 0x0000000000000000\n";
    const std::pair<std::string, bool> cases[] = {
        {"ext4" + rest + "sbsa_gwdt 16384 1 other, Live 0x0\n" + "loop" + rest, true},
        {"ext4" + rest + "sbsa_gwdt 1 0 - Live 0x0", true},
        {"sbsa_gwdt2" + rest + "my_sbsa_gwdt" + rest + "sbsa" + rest + "core 1 1 sbsa_gwdt, Live\n",
         false},
    };
    for (const auto& [modules, isLoaded] : cases) {
        const int status = RunIsolated([&, &modules = modules, isLoaded = isLoaded] {
            Reset();
            MountTmpfs("/proc");
            BindFile(modules, "/proc/modules");
            EXPECT_TRUE(InsertWatchDogKo(Enabled()));
            Strings calls{"access " + KO + " 0"};
            std::vector<LogLine> lines{{LOG_INFO, "Watchdog ko=sbsa_gwdt is already insert"}};
            if (!isLoaded) {
                calls.insert(calls.end(),
                             {"open " + KO, "finit_module 12 [" + PARAMETERS + "] 0", "close 12"});
                lines = {{LOG_INFO, "Watchdog ko checking, ko=sbsa_gwdt has not been inserted"},
                         OPENED,
                         {LOG_INFO, "Insmod " + KO + " success !!!, param=" + PARAMETERS}};
            }
            Expect(calls, lines);
        });
        EXPECT_EQ(status, 0) << modules;
    }
}

TEST_F(WatchDog, FailuresOfLoadingTheModule) {
    WatchDogSys::Calls().Fail("open", EACCES);
    EXPECT_FALSE(InsmodKo(Enabled()));
    Expect({"open " + KO}, {{LOG_ERR, "InsmodKo failed. open ko=" + KO + " failed errno=13"}});
    ProcMgrSettings settings = Enabled();
    settings.watchDogTimeout = "30";
    settings.watchDogAction = "0";
    const std::string parameters = "timeout=30 action=0 disable_on_poweroff=1";
    WatchDogSys::Calls().Fail("finit_module", ENOEXEC);
    EXPECT_FALSE(InsmodKo(settings));
    Expect({"open " + KO, "finit_module 12 [" + parameters + "] 0", "close 12"},
           {OPENED,
            {LOG_ERR,
             "InsmodKo failed. finit_module ko=" + KO + " failed errno=8, params=" + parameters}});
}

TEST_F(WatchDog, Feeding) {
    ProcMgrEnv::GetInstance().SetDisableWatchDog(true);  // disables the load only
    EXPECT_TRUE(EnableFeedDog("60"));
    const Strings calls = {"open " + DEVICE, "ioctl 12 0xc0085701 60000", "close 12"};
    Expect(calls, {FEED_OPENED,
                   {LOG_INFO, "Enable feeding watchdog ioctl successfully, device=" + DEVICE +
                                  ", timeout=60000ms"}});
    WatchDogSys::Calls().Fail("ioctl", ENOTTY);
    EXPECT_FALSE(EnableFeedDog("60"));
    const std::string failed = "EnableFeedDog failed. ";
    Expect(calls,
           {FEED_OPENED,
            {LOG_ERR, failed + "ioctl failed. device=" + DEVICE + ", errno=25, timeout=60000 ms"}});
    WatchDogSys::Calls().Fail("open", ENOENT);
    EXPECT_FALSE(EnableFeedDog("60"));
    Expect({"open " + DEVICE}, {{LOG_ERR, failed + "open device=" + DEVICE + " failed errno=2"}});
}

TEST_F(WatchDog, ATimeoutThatIsNoNumberThrowsAndLeavesNoDescriptor) {
    for (const std::string timeout : {"", "99999999999", "2147484", "-2147484"}) {
        EXPECT_THAT([&] { EnableFeedDog(timeout); },
                    testing::ThrowsMessage<std::logic_error>("stoi"))
            << timeout;
        Expect({"open " + DEVICE, "close 12"}, {FEED_OPENED});
    }
    EXPECT_TRUE(EnableFeedDog("2147483"));
    EXPECT_EQ(WatchDogSys::Calls().Calls()[1], "ioctl 12 0xc0085701 2147483000");
}

}  // namespace
}  // namespace ProcMgr
