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
    const struct {
        int32_t status;
        int level;
        std::string text;
    } cases[] = {
        {0, 4, " : Process=svc, pid=12 was self terminated, the exit status is 0."},
        {125 << 8, 4, " : Process=svc, pid=12 was self terminated, the exit status is 125."},
        {SIGSTOP << 8 | 0x7f, 4, " : Process=svc, pid=12 was unexpectedly terminated"},
        {SIGSEGV | CORE, 3, ": Process=svc, pid=12 was coredump"},
        {SIGABRT, 4, " : Process=svc, pid=12 terminated by calling abort(), signal=6"},
        {SIGILL, 4, " : Process=svc, pid=12 terminated by illegal instruction by signal=4"},
        {SIGTRAP, 4, " : Process=svc, pid=12 terminated by trap signal=5"},
        {SIGINT, 4, " : Process=svc, pid=12 terminated by interrupt signal=2"},
        {SIGTERM, 4, " : Process=svc, pid=12 terminated by calling Term(), signal=15"},
        {19, 4, " : Process=svc, pid=12 stopped by signal=19"},
        {SIGKILL, 4, " : Process=svc, pid=12 terminated by calling Kill(), signal=9"},
        {SIGSEGV, 3, " : Process=svc, pid=12 got unexpected signal=11"},
    };
    for (const auto& [status, level, text] : cases) {
        LogCapture::Clear();
        LogExitStatus(status, "svc", 12);
        EXPECT_EQ(LogCapture::Lines(), (std::vector<LogLine>{{level, "PROCMGR" + text}}));
    }
}

}  // namespace
}  // namespace ProcMgr::App
