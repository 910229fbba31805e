#include "config/boot_command_line.h"

#include <gtest/gtest.h>

#include "main/common/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

using BootCommandLineTest = IsolatedTest;
using Fakes::LogCapture;

// Runs `body` in a child in which /proc holds this command line and nothing else.
template <typename Body>
void OnBootLine(const std::string& text, Body body) {
    SCOPED_TRACE(text);
    BootCommandLineTest::Isolated([&] {
        MountTmpfs("/proc");
        BindFile(text, "/proc/cmdline");
        LogCapture::Clear();
        body();
    });
}

// The text of all lines.
std::string Logged() {
    std::string texts;
    for (const auto& line : LogCapture::Lines()) {
        texts += line.text + "\n";
    }
    return texts;
}

TEST_F(BootCommandLineTest, AllLines) {
    OnBootLine(
        "veskmode=a,kernel_utils procmgr=trace,nowatchdog,boot:/proc/./cmdline,debug ro "
        "reboot_reason=RESUME_FAIL\n",
        [] {
            MountTmpfs("/sys/fs");
            BindFile("1", "/sys/fs/selinux/enforce");
            BootCommandLine().Read();
            EXPECT_EQ(Logged(), R"(pm UpdateSelinuxEnable success: enable=1
ProcMgr boot args, procmgr=trace,nowatchdog,boot:/proc/./cmdline,debug
ProcMgr: cmdline disableWatchDog_=1
ProcMgr: debug need enable
ProcMgr: trace need enable
ProcMgr: cmdline cfg startup yaml: /proc/./cmdline
ProcMgr boot args, veskmode=a,kernel_utils
ProcMgr: cmdline veskcoreEnable=1
ProcMgr boot args, reboot_reason=RESUME_FAIL
ProcMgr: cmdline reboot_reason=RESUME_FAIL
)");
            const ProcMgrEnv& env = ProcMgrEnv::GetInstance();
            EXPECT_TRUE(env.IsSelinuxEnable() && env.IsVeskcoreEnable());
            EXPECT_EQ(env.GetStartupYaml(), "/proc/cmdline");
        });
}

TEST_F(BootCommandLineTest, Switches) {
    const struct {
        std::string text;
        bool isWatchDogDisabled;
        std::string rebootReason;
        std::string line;  // that is logged, among others
    } cases[] = {
        {"procmgr=\"x,nowatchdog\" b", true, "", "ProcMgr: cmdline disableWatchDog_=1"},
        {"procmgr='nowatchdog'", true, "", "key=veskmode not found in cmdline."},
        {"procmgr=\"nowatchdog'", false, "", "ProcMgr: cmdline disableWatchDog_=0"},
        {"my.procmgr=,,nowatchdog,, b", true, "", "ProcMgr boot args, procmgr=,,nowatchdog,,"},
        {"nowatchdog kernel_utils RESUME_FAIL", false, "", "key=procmgr not found in cmdline."},
        {"quiet procmgr", false, "", "ProcMgr boot args, procmgr="},
        {"reboot_reason=SUSPEND_FAIL x", false, "SUSPEND_FAIL",
         "ProcMgr: cmdline veskcoreEnable=0"},
        {"procmgr=boot:/nowhere/x", false, "",
         "ProcMgr: cmdline cfg startup yaml /nowhere/x standardizationPath failed,use default "
         "path"},
    };
    for (const auto& test : cases) {
        OnBootLine(test.text, [&] {
            BootCommandLine().Read();
            const ProcMgrEnv& env = ProcMgrEnv::GetInstance();
            EXPECT_EQ(env.IsWatchDogDisabled(), test.isWatchDogDisabled);
            EXPECT_EQ(env.GetRebootReason() + env.GetStartupYaml(), test.rebootReason);
            EXPECT_TRUE(LogCapture::Contains(LOG_INFO, test.line));
        });
    }
}

TEST_F(BootCommandLineTest, OptionalServices) {
    const std::string unused = " need enable, but not rightly configured\n";
    const struct {
        std::string text;
        std::string cfgPath;
        bool isEnabled;
        std::string lines;  // of IsEnabled() and the final report
    } cases[] = {
        {"", "/etc/debug/a.yaml", false,
         "ProcMgr: /etc/debug/a.yaml will not enable as not configured in cmdline\n"},
        {"procmgr=x,diag", "/etc/base/diag.yaml", true, ""},
        {"procmgr=debug", "/etc/trace/a.yaml", false, "debug" + unused},
        {"procmgr=trace", "/etc/base/a.yaml", true, "trace" + unused},
        {"", "/etc/base/debugger.yaml", true, ""},
        {"procmgr=debug", "/etc/debug/trace.yaml", false, ""},
    };
    for (const auto& test : cases) {
        OnBootLine(test.text, [&] {
            BootCommandLine line;
            line.Read();
            LogCapture::Clear();
            EXPECT_EQ(line.IsEnabled(test.cfgPath), test.isEnabled) << test.cfgPath;
            line.ReportNotConfigured();
            EXPECT_EQ(Logged(), test.lines) << test.cfgPath;
        });
    }
}

TEST_F(BootCommandLineTest, SlotId) {
    const struct {
        std::string text;
        std::string cell;
        int32_t slotId;
    } cases[] = {{"quiet slotid=7 ro", "", 7},
                 {"slotid=7x", "", 0},
                 {"slotid=99999999999", "", 0},
                 {"slotid=7", std::string("\0\0\1\2", 4), 258},
                 {"slotid=7", "\1\2", 7}};
    for (const auto& test : cases) {
        OnBootLine(test.text, [&] {
            if (!test.cell.empty()) {
                BindFile(test.cell, "/proc/device-tree/slot-id");
            }
            EXPECT_EQ(ReadSlotId(), test.slotId);
        });
    }
}

}  // namespace
}  // namespace ProcMgr
