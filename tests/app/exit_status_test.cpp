#include "app/exit_status.h"

#include <gtest/gtest.h>

#include "tests/app/app_test_support.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;

constexpr int CORE = 0x80;

TEST(ExitStatus, EveryEndHasItsLine) {
    const auto warning = [](const std::string& text) {
        return LogLine{4, "PROCMGR : Process=svc, pid=12 " + text};
    };
    const LogLine coreDump{3, "PROCMGR: Process=svc, pid=12 was coredump"};
    const auto unexpected = [](int signal) {
        return LogLine{
            3, "PROCMGR : Process=svc, pid=12 got unexpected signal=" + std::to_string(signal)};
    };
    const std::pair<int32_t, LogLine> cases[] = {
        {0, warning("was self terminated, the exit status is 0.")},
        {125 << 8, warning("was self terminated, the exit status is 125.")},
        {SIGSTOP << 8 | 0x7f, warning("was unexpectedly terminated")},
        {SIGSEGV | CORE, coreDump},
        {SIGABRT, warning("terminated by calling abort(), signal=6")},
        {SIGILL, warning("terminated by illegal instruction by signal=4")},
        {SIGTRAP, warning("terminated by trap signal=5")},
        {SIGINT, warning("terminated by interrupt signal=2")},
        {SIGTERM, warning("terminated by calling Term(), signal=15")},
        {19, warning("stopped by signal=19")},
        {SIGKILL, warning("terminated by calling Kill(), signal=9")},
        {SIGSEGV, unexpected(11)},
        {SIGRTMAX, unexpected(64)},
    };
    for (const auto& [status, line] : cases) {
        LogCapture::Clear();
        LogExitStatus(status, "svc", 12);
        EXPECT_EQ(LogCapture::Lines(), std::vector{line}) << status;
    }
}

TEST(ExitStatus, WhatWaitidFoundBecomesAWaitStatus) {
    const struct {
        int code;
        int value;
        int32_t status;
    } cases[] = {
        {CLD_EXITED, 125, 125 << 8},
        {CLD_KILLED, SIGKILL, SIGKILL},
        {CLD_DUMPED, SIGSEGV, SIGSEGV | CORE},
    };
    for (const auto& test : cases) {
        siginfo_t info{};
        info.si_code = test.code;
        info.si_status = test.value;
        EXPECT_EQ(ToWaitStatus(info), test.status) << test.code;
    }
}

}  // namespace
}  // namespace ProcMgr::App
