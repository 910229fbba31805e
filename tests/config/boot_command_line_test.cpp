#include "config/boot_command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "main/common/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

using BootCommandLineTest = IsolatedTest;
using Fakes::LogCapture;
using Fakes::LogLine;

// Runs `body` in a child that sees nothing of the kernel but this command line.
template <typename Body>
void OnBootLine(const std::string& text, Body body) {
    const int status = RunIsolated([&] {
        MountTmpfs("/proc");
        BindFile(text, "/proc/cmdline");
        LogCapture::Clear();
        body();
    });
    EXPECT_EQ(status, 0) << text;
}

std::vector<LogLine> Info(const std::vector<std::string>& texts) {
    std::vector<LogLine> lines;
    for (const std::string& text : texts) {
        lines.push_back({LOG_INFO, text});
    }
    return lines;
}

TEST_F(BootCommandLineTest, AllLines) {
    OnBootLine(
        "veskmode=a,kernel_utils procmgr=trace,nowatchdog,boot:/proc/./cmdline,debug ro "
        "reboot_reason=RESUME_FAIL\n",
        [] {
            MountTmpfs("/sys/fs");
            BindFile("1", "/sys/fs/selinux/enforce");
            BootCommandLine().Read();
            auto lines = Info(
                {"pm UpdateSelinuxEnable success: enable=1",
                 "ProcMgr boot args, procmgr=trace,nowatchdog,boot:/proc/./cmdline,debug",
                 "ProcMgr: cmdline disableWatchDog_=1", "ProcMgr: debug need enable",
                 "ProcMgr: trace need enable", "ProcMgr: cmdline cfg startup yaml: /proc/./cmdline",
                 "ProcMgr boot args, veskmode=a,kernel_utils", "ProcMgr: cmdline veskcoreEnable=1",
                 "ProcMgr boot args, reboot_reason=RESUME_FAIL"});
            lines.push_back({LOG_WARNING, "ProcMgr: cmdline reboot_reason=RESUME_FAIL"});
            EXPECT_EQ(LogCapture::Lines(), lines);
            EXPECT_TRUE(ProcMgrEnv::GetInstance().IsSelinuxEnable());
            EXPECT_EQ(ProcMgrEnv::GetInstance().GetStartupYaml(), "/proc/cmdline");
        });
}

TEST_F(BootCommandLineTest, Switches) {
    struct Case {
        std::string text;
        bool isWatchDogDisabled;
        bool isVeskcore;
        std::string rebootReason;
        std::string line;  // one that must be there
    };
    const Case cases[] = {
        {"procmgr=\"x,nowatchdog\" b", true, false, "", "ProcMgr: cmdline disableWatchDog_=1"},
        {"procmgr='nowatchdog'", true, false, "", "ProcMgr: cmdline disableWatchDog_=1"},
        {"procmgr=\"nowatchdog'", false, false, "", "ProcMgr: cmdline disableWatchDog_=0"},
        {"my.procmgr=,,nowatchdog,, b", true, false, "",
         "ProcMgr boot args, procmgr=,,nowatchdog,,"},
        {"nowatchdog kernel_utils RESUME_FAIL", false, false, "",
         "key=procmgr not found in cmdline."},
        {"quiet procmgr", false, false, "", "ProcMgr boot args, procmgr="},
        {"procmgr= nowatchdog", false, false, "", "ProcMgr boot args, procmgr="},
        {"reboot_reason=SUSPEND_FAIL x", false, false, "SUSPEND_FAIL",
         "ProcMgr boot args, reboot_reason=SUSPEND_FAIL"},
        {"procmgr=boot:/nowhere/x", false, false, "",
         "ProcMgr: cmdline cfg startup yaml /nowhere/x standardizationPath failed,use default "
         "path"},
    };
    for (const Case& test : cases) {
        OnBootLine(test.text, [&] {
            BootCommandLine().Read();
            const ProcMgrEnv& env = ProcMgrEnv::GetInstance();
            EXPECT_EQ(env.IsWatchDogDisabled(), test.isWatchDogDisabled) << test.text;
            EXPECT_EQ(env.IsVeskcoreEnable(), test.isVeskcore) << test.text;
            EXPECT_EQ(env.GetRebootReason(), test.rebootReason) << test.text;
            EXPECT_EQ(env.GetStartupYaml(), "");
            EXPECT_TRUE(LogCapture::Contains(LOG_INFO, test.line)) << test.text;
        });
    }
}

TEST_F(BootCommandLineTest, OptionalServices) {
    struct Case {
        std::string text;
        std::string cfgPath;
        bool isEnabled;
        std::vector<std::string> lines;  // of the question and the final report
    };
    const std::string unmatched = " need enable, but not rightly configured";
    const Case cases[] = {
        {"",
         "/etc/debug/net.yaml",
         false,
         {"ProcMgr: /etc/debug/net.yaml will not enable as not configured in cmdline"}},
        {"procmgr=x,diag", "/etc/base/diag.yaml", true, {}},
        {"procmgr=debug", "/etc/trace/net.yaml", false, {"debug" + unmatched}},
        {"procmgr=trace", "/etc/base/net.yaml", true, {"trace" + unmatched}},
        {"", "/etc/base/debugger.yaml", true, {}},
        {"procmgr=debug", "/etc/debug/trace.yaml", false, {}},
    };
    for (const Case& test : cases) {
        OnBootLine(test.text, [&] {
            BootCommandLine line;
            line.Read();
            LogCapture::Clear();
            EXPECT_EQ(line.IsEnabled(test.cfgPath), test.isEnabled) << test.text << test.cfgPath;
            line.ReportNotConfigured();
            EXPECT_EQ(LogCapture::Lines(), Info(test.lines)) << test.text << test.cfgPath;
        });
    }
}

TEST_F(BootCommandLineTest, SlotId) {
    const struct {
        std::string text;
        std::string cell;
        int32_t slotId;
    } cases[] = {
        {"quiet slotid=7 ro", "", 7},  {"slotid=7x", "", 0},
        {"slotid=99999999999", "", 0}, {"slotid=7", std::string("\0\0\1\2", 4), 258},
        {"slotid=7", "\1\2", 7},
    };
    for (const auto& test : cases) {
        OnBootLine(test.text, [&] {
            if (!test.cell.empty()) {
                BindFile(test.cell, "/proc/device-tree/slot-id");
            }
            EXPECT_EQ(ReadSlotId(), test.slotId) << test.text;
        });
    }
}

}  // namespace
}  // namespace ProcMgr
