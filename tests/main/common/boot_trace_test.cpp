#include "main/common/boot_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

namespace ProcMgr {
namespace {

using BootTrace = IsolatedTest;
using Fakes::LogCapture;

// Lays empty directories over /proc and /dev.
void HideProcAndDev() {
    MountTmpfs("/proc");
    MountTmpfs("/dev");
    LogCapture::Clear();
}

TEST_F(BootTrace, PointsGoToTheKernelAndTheImportantOnesToTheConsole) {
    const struct {
        uint32_t code;
        std::string decimal;
        std::string hexadecimal;  // empty: not for the console
    } points[] = {{0x20000001, "536870913", "20000001"},
                  {0x30000001, "805306369", ""},
                  {0xFFFFFFFF, "4294967295", "ffffffff"}};
    const int status = RunIsolated([&] {
        HideProcAndDev();
        std::filesystem::create_directory("/proc/bootdot");
        for (const auto& point : points) {
            std::ofstream("/proc/bootdot/initblk").flush();
            std::ofstream("/proc/bootdot/setblk", std::ios::trunc).flush();
            std::ofstream("/dev/ttyAMA0", std::ios::trunc).flush();
            WriteBootTracePoint(point.code);
            EXPECT_EQ(ReadFile("/proc/bootdot/setblk"), "procmgr," + point.decimal);
            const std::string stamp = "\\[[0-9]+\\.[0-9]{6}s\\]\\[BOOT_TRACE\\]\\[PM\\]";
            const std::string line = stamp + "pm=0x" + point.hexadecimal + "\n";
            EXPECT_THAT(ReadFile("/dev/ttyAMA0"),
                        testing::MatchesRegex(point.hexadecimal.empty() ? "" : line));
        }
        EXPECT_TRUE(LogCapture::Lines().empty());
    });
    EXPECT_EQ(status, 0);
}

TEST_F(BootTrace, AMissingInterfaceIsSkippedAndAMissingConsoleIsLogged) {
    const int status = RunIsolated([] {
        HideProcAndDev();
        WriteBootTracePoint(0x30000001);
        EXPECT_TRUE(LogCapture::Lines().empty());
        WriteBootTracePoint(0x20000001);
        EXPECT_TRUE(LogCapture::Contains(4, "procmgr open file=/dev/ttyAMA0 fail"));
        EXPECT_FALSE(std::filesystem::exists("/dev/ttyAMA0"));
        EXPECT_FALSE(std::filesystem::exists("/proc/bootdot"));

        // The console works without the kernel interface.
        std::ofstream("/dev/ttyAMA0").flush();
        WriteBootTracePoint(0);
        EXPECT_THAT(ReadFile("/dev/ttyAMA0"), testing::HasSubstr("pm=0x0"));
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ProcMgr
