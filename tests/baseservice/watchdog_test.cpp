#include "baseservice/watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "baseservice/watchdog_sys.h"
#include "main/common/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

using Strings = std::vector<std::string>;

const std::string KO = "/var/sbsa_gwdt.ko";
const std::string DEVICE = "/local/dev/veskutil_watchdog";
const std::string PARAMETERS = "timeout=60 action=2 disable_on_poweroff=1";
const std::string DISABLED = "4 Watchdog is disabled by cmdline parameter. Do not insert ko";
const std::string OPENED = "6 Open watchdog ko successfully, watchdog ko=" + KO + ", fd=12";
const std::string FEED_OPENED =
    "6 Enable feeding dog, open device=" + DEVICE + " successfully, fd=12";

ProcMgrSettings Enabled() {
    ProcMgrSettings settings;
    settings.watchDogEnable = true;
    return settings;
}

// Forgets the calls with their scripted failures and the log lines.
void Reset() {
    WatchDogSys::Calls() = {};
    Fakes::LogCapture::Clear();
    ProcMgrEnv::GetInstance().SetDisableWatchDog(false);
}

// Compares the calls and the log lines since the last Reset(), which this function ends with.
void Expect(const Strings& calls, const Strings& lines) {
    Strings logged;
    for (const auto& [level, text] : Fakes::LogCapture::Lines()) {
        logged.push_back(std::to_string(level) + " " + text);
    }
    EXPECT_EQ(WatchDogSys::Calls().Calls(), calls);
    EXPECT_EQ(logged, lines);
    Reset();
}

using WatchDogModules = IsolatedTest;

TEST(WatchDog, NothingIsLoadedWhenItIsDisabledOrWithoutAFile) {
    EXPECT_FALSE(InsertWatchDogKo(ProcMgrSettings{}));
    Expect({}, {"4 sbsa_gwdt is disable, so not need insert"});
    ProcMgrEnv::GetInstance().SetDisableWatchDog(true);
    EXPECT_FALSE(InsertWatchDogKo(Enabled()));
    EXPECT_FALSE(InsmodKo(Enabled())) << "also without the check of the caller above";
    Expect({}, {DISABLED, DISABLED});
    WatchDogSys::Calls().Fail("access", ENOENT);
    EXPECT_FALSE(InsertWatchDogKo(Enabled()));
    Expect({"access " + KO + " 0"}, {"3 " + KO + " is not existed errno=2"});
}

TEST_F(WatchDogModules, AModuleIsLoadedUnlessThatHasHappened) {
    const std::string rest = " 16384 0 - Live 0x0000000000000000\n";
    const int status = RunIsolated([&] {
        MountTmpfs("/proc");
        BindFile("ext4" + rest + "sbsa_gwdt 16384 1 other, Live 0x0", "/proc/modules");
        EXPECT_TRUE(InsertWatchDogKo(Enabled()));
        Expect({"access " + KO + " 0"}, {"6 Watchdog ko=sbsa_gwdt is already insert"});
        BindFile("sbsa_gwdt2" + rest + "my_sbsa_gwdt" + rest + "sbsa" + rest + "c 1 1 sbsa_gwdt,\n",
                 "/proc/modules");
        EXPECT_TRUE(InsertWatchDogKo(Enabled()));
        Expect({"access " + KO + " 0", "open " + KO, "finit_module 12 [" + PARAMETERS + "] 0",
                "close 12"},
               {"6 Watchdog ko checking, ko=sbsa_gwdt has not been inserted", OPENED,
                "6 Insmod " + KO + " success !!!, param=" + PARAMETERS});
    });
    EXPECT_EQ(status, 0);
}

TEST(WatchDog, FailuresOfLoadingTheModule) {
    WatchDogSys::Calls().Fail("open", EACCES);
    EXPECT_FALSE(InsmodKo(Enabled()));
    Expect({"open " + KO}, {"3 InsmodKo failed. open ko=" + KO + " failed errno=13"});
    ProcMgrSettings settings = Enabled();
    settings.watchDogTimeout = "30";
    settings.watchDogAction = "0";
    const std::string parameters = "timeout=30 action=0 disable_on_poweroff=1";
    WatchDogSys::Calls().Fail("finit_module", ENOEXEC);
    EXPECT_FALSE(InsmodKo(settings));
    Expect({"open " + KO, "finit_module 12 [" + parameters + "] 0", "close 12"},
           {OPENED,
            "3 InsmodKo failed. finit_module ko=" + KO + " failed errno=8, params=" + parameters});
}

TEST(WatchDog, Feeding) {
    ProcMgrEnv::GetInstance().SetDisableWatchDog(true);  // disables the load only
    EXPECT_TRUE(EnableFeedDog("2147483"));
    Expect({"open " + DEVICE, "ioctl 12 0xc0085701 2147483000", "close 12"},
           {FEED_OPENED, "6 Enable feeding watchdog ioctl successfully, device=" + DEVICE +
                             ", timeout=2147483000ms"});
    WatchDogSys::Calls().Fail("ioctl", ENOTTY);
    EXPECT_FALSE(EnableFeedDog("60"));
    const std::string failed = "3 EnableFeedDog failed. ";
    Expect(
        {"open " + DEVICE, "ioctl 12 0xc0085701 60000", "close 12"},
        {FEED_OPENED, failed + "ioctl failed. device=" + DEVICE + ", errno=25, timeout=60000 ms"});
    WatchDogSys::Calls().Fail("open", ENOENT);
    EXPECT_FALSE(EnableFeedDog("60"));
    Expect({"open " + DEVICE}, {failed + "open device=" + DEVICE + " failed errno=2"});
    for (const std::string timeout : {"", "99999999999", "2147484", "-2147484"}) {
        EXPECT_THAT([&] { EnableFeedDog(timeout); },
                    testing::ThrowsMessage<std::logic_error>("stoi"))
            << timeout;
        Expect({"open " + DEVICE, "close 12"}, {FEED_OPENED});
    }
}

}  // namespace
}  // namespace ProcMgr
