#include "main/common/boot_trace.h"

#include <gmock/gmock.h>

#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

using BootTrace = IsolatedTest;
using Fakes::LogCapture;

TEST_F(BootTrace, PointsGoToTheKernelAndTheImportantOnesToTheConsole) {
    Isolated([] {
        MountTmpfs("/proc");
        MountTmpfs("/dev");
        LogCapture::Clear();
        WriteBootTracePoint(0x30000001);
        EXPECT_TRUE(LogCapture::Lines().empty()) << "a missing interface is skipped";
        WriteBootTracePoint(0x20000001);
        EXPECT_TRUE(LogCapture::Contains(4, "procmgr open file=/dev/ttyAMA0 fail"));
        EXPECT_TRUE(std::filesystem::is_empty("/dev") && std::filesystem::is_empty("/proc"));
        std::ofstream("/dev/ttyAMA0").flush();
        WriteBootTracePoint(0);
        EXPECT_THAT(ReadFile("/dev/ttyAMA0"), testing::HasSubstr("pm=0x0"));
    });
    Isolated([] {
        MountTmpfs("/proc");
        MountTmpfs("/dev");
        LogCapture::Clear();
        std::filesystem::create_directory("/proc/bootdot");
        // Each point, and how the console shows it: empty for not at all.
        for (const auto& [code, shown] : {std::pair{0x20000001U, "pm=0x20000001"},
                                          {0x30000001U, ""},
                                          {0xFFFFFFFFU, "pm=0xffffffff"}}) {
            std::ofstream("/proc/bootdot/initblk").flush();
            std::ofstream("/proc/bootdot/setblk").flush();
            std::ofstream("/dev/ttyAMA0").flush();
            WriteBootTracePoint(code);
            EXPECT_EQ(ReadFile("/proc/bootdot/setblk"), "procmgr," + std::to_string(code));
            const std::string stamp = "\\[[0-9]+\\.[0-9]{6}s\\]\\[BOOT_TRACE\\]\\[PM\\]";
            EXPECT_THAT(ReadFile("/dev/ttyAMA0"),
                        testing::MatchesRegex(*shown == '\0' ? "" : stamp + shown + "\n"));
        }
        EXPECT_TRUE(LogCapture::Lines().empty());
    });
}

}  // namespace
}  // namespace ProcMgr
