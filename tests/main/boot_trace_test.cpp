#include "main/boot_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/fakes/log_capture.h"
#include "tests/main/isolated.h"

namespace ProcMgr {
namespace {

using BootTracePoints = IsolatedTest;

using Fakes::LogCapture;

TEST(BootTrace, StampsHaveTheirFormAndNeverGoBack) {
    double last = 0;
    for (int i = 0; i < 1000; ++i) {
        const std::string stamp = BootStrace("PM");
        EXPECT_THAT(stamp,
                    testing::MatchesRegex("\\[[0-9]+\\.[0-9]{6}s\\]\\[BOOT_TRACE\\]\\[PM\\]"));
        const double now = std::stod(stamp.substr(1));
        EXPECT_LE(last, now);
        last = now;
    }
}

struct Point {
    uint32_t code;
    const char* decimal;
    const char* hexadecimal;  // null: not for the console
};

constexpr Point POINTS[] = {
    {0x20000001, "536870913", "20000001"},
    {0x30000001, "805306369", nullptr},
    {0xFFFFFFFF, "4294967295", "ffffffff"},
};

// Lays empty directories over /proc and /dev.
void HideProcAndDev() {
    MountTmpfs("/proc");
    MountTmpfs("/dev");
    LogCapture::Clear();
}

TEST_F(BootTracePoints, PointsGoToTheKernelAndTheImportantOnesToTheConsole) {
    const int status = RunIsolated([] {
        HideProcAndDev();
        std::filesystem::create_directory("/proc/bootdot");
        for (const Point& point : POINTS) {
            std::ofstream("/proc/bootdot/initblk").flush();
            std::ofstream("/proc/bootdot/setblk", std::ios::trunc).flush();
            std::ofstream("/dev/ttyAMA0", std::ios::trunc).flush();
            WriteBootTracePoint(point.code);
            const std::string record = ReadFile("/proc/bootdot/setblk");
            const size_t comma = record.rfind(',');
            ASSERT_NE(comma, std::string::npos) << point.decimal;
            EXPECT_EQ(record.substr(comma + 1), point.decimal);
            const std::string console = ReadFile("/dev/ttyAMA0");
            if (point.hexadecimal == nullptr) {
                EXPECT_EQ(console, "");
                continue;
            }
            EXPECT_THAT(console, testing::MatchesRegex(
                                     std::string("\\[[0-9.]+s\\]\\[BOOT_TRACE\\]\\[PM\\].*pm=0x") +
                                     point.hexadecimal + "[\r\n]*"));
        }
        EXPECT_TRUE(LogCapture::Lines().empty());
    });
    EXPECT_EQ(status, 0);
}

TEST_F(BootTracePoints, AMissingInterfaceIsSkippedAndAMissingConsoleIsLogged) {
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
