#include "config/boot_command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "main/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"
#include "tests/main/isolated.h"

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

// Every line is of level 6 but the one on a failed resume.
std::vector<LogLine> Info(const std::vector<std::string>& texts) {
    std::vector<LogLine> lines;
    for (const std::string& text : texts) {
        const bool isWarning = text == "ProcMgr: cmdline reboot_reason=RESUME_FAIL";
        lines.push_back({isWarning ? LOG_WARNING : LOG_INFO, text});
    }
    return lines;
}

TEST_F(BootCommandLineTest, AllLines) {
    OnBootLine("quiet console=ttyS0\n", [] {
        BootCommandLine().Read();
        EXPECT_EQ(
            LogCapture::Lines(),
            Info({"pm UpdateSelinuxEnable success: enable=0", "key=procmgr not found in cmdline.",
                  "ProcMgr: cmdline disableWatchDog_=0", "key=veskmode not found in cmdline.",
                  "ProcMgr: cmdline veskcoreEnable=0", "key=reboot_reason not found in cmdline."}));
    });
    OnBootLine(
        "veskmode=a,kernel_utils procmgr=trace,nowatchdog,boot:/proc/./cmdline,debug ro "
        "reboot_reason=RESUME_FAIL\n",
        [] {
            MountTmpfs("/sys/fs");
            BindFile("1", "/sys/fs/selinux/enforce");
            BootCommandLine().Read();
            EXPECT_EQ(
                LogCapture::Lines(),
                Info({"pm UpdateSelinuxEnable success: enable=1",
                      "ProcMgr boot args, procmgr=trace,nowatchdog,boot:/proc/./cmdline,debug",
                      "ProcMgr: cmdline disableWatchDog_=1", "ProcMgr: debug need enable",
                      "ProcMgr: trace need enable",
                      "ProcMgr: cmdline cfg startup yaml: /proc/./cmdline",
                      "ProcMgr boot args, veskmode=a,kernel_utils",
                      "ProcMgr: cmdline veskcoreEnable=1",
                      "ProcMgr boot args, reboot_reason=RESUME_FAIL",
                      "ProcMgr: cmdline reboot_reason=RESUME_FAIL"}));
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
        {"a procmgr=,,nowatchdog,, b", true, false, "",
         "ProcMgr boot args, procmgr=,,nowatchdog,,"},
        {"procmgr=\"x,nowatchdog\" b", true, false, "", "ProcMgr: cmdline disableWatchDog_=1"},
        {"procmgr='nowatchdog'", true, false, "", "ProcMgr: cmdline disableWatchDog_=1"},
        {"procmgr=\"nowatchdog'", false, false, "", "ProcMgr: cmdline disableWatchDog_=0"},
        {"my.procmgr=nowatchdog", true, false, "", "ProcMgr boot args, procmgr=nowatchdog"},
        {"nowatchdog kernel_utils RESUME_FAIL", false, false, "",
         "key=procmgr not found in cmdline."},
        {"quiet procmgr", false, false, "", "ProcMgr boot args, procmgr="},
        {"procmgr= nowatchdog", false, false, "", "ProcMgr boot args, procmgr="},
        {"veskmode=kernel_utils", false, true, "", "ProcMgr: cmdline veskcoreEnable=1"},
        {"reboot_reason=SUSPEND_FAIL x", false, false, "SUSPEND_FAIL",
         "ProcMgr boot args, reboot_reason=SUSPEND_FAIL"},
        {"reboot_reason", false, false, "", "ProcMgr boot args, reboot_reason="},
    };
    for (const Case& test : cases) {
        OnBootLine(test.text, [&] {
            BootCommandLine().Read();
            const ProcMgrEnv& env = ProcMgrEnv::GetInstance();
            EXPECT_EQ(env.IsWatchDogDisabled(), test.isWatchDogDisabled) << test.text;
            EXPECT_EQ(env.IsVeskcoreEnable(), test.isVeskcore) << test.text;
            EXPECT_EQ(env.GetRebootReason(), test.rebootReason) << test.text;
            EXPECT_TRUE(LogCapture::Contains(LOG_INFO, test.line)) << test.text;
        });
    }
}

TEST_F(BootCommandLineTest, AStartupYamlThatIsNotThereIsNotUsed) {
    for (const std::string path : {"/nowhere/base.yaml", "", "/etc/hosts/x"}) {
        OnBootLine("procmgr=boot:" + path, [&] {
            BootCommandLine().Read();
            EXPECT_EQ(ProcMgrEnv::GetInstance().GetStartupYaml(), "");
            EXPECT_TRUE(
                LogCapture::Contains(LOG_INFO, "ProcMgr: cmdline cfg startup yaml: " + path));
            EXPECT_TRUE(
                LogCapture::Contains(LOG_INFO, "ProcMgr: cmdline cfg startup yaml " + path +
                                                   " standardizationPath failed,use default path"));
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
    const std::string refused = " will not enable as not configured in cmdline";
    const std::string unmatched = " need enable, but not rightly configured";
    const Case cases[] = {
        {"", "/etc/base/net.yaml", true, {}},
        {"", "/etc/debug/net.yaml", false, {"ProcMgr: /etc/debug/net.yaml" + refused}},
        {"procmgr=", "/etc/base/diag.yaml", false, {"ProcMgr: /etc/base/diag.yaml" + refused}},
        {"procmgr=debug", "/etc/debug/net.yaml", true, {}},
        {"procmgr=x,diag", "/etc/base/diag.yaml", true, {}},
        {"procmgr=nowatchdog", "/etc/base/diag.yaml", false, {}},
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
    struct Case {
        std::string text;
        std::string cell;
        int32_t slotId;
    };
    const Case cases[] = {
        {"", "", 0},
        {"quiet slotid=7 ro", "", 7},
        {"slotid=7x", "", 0},
        {"slotid=99999999999", "", 0},
        {"slotid=7", std::string("\0\0\1\2", 4), 258},
        {"slotid=7", "\1\2", 7},
    };
    for (const Case& test : cases) {
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
