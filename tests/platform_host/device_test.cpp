#include "platform/device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/private_run.h"

namespace {

using testing::ElementsAre;

std::vector<std::string> LogLines() {
    std::ifstream log("/run/device-sim.log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) {
        lines.push_back(line);
    }
    return lines;
}

HalSensorNodeConfig Node(const char* name) {
    HalSensorNodeConfig config{};
    memcpy(config.name, name, std::min(strlen(name), sizeof(config.name)));
    config.nodeType = 0x602;
    config.sensorType = 0x27;
    return config;
}

class DeviceTest : public PrivateRunTest {
protected:
    void SetUp() override {
        PrivateRunTest::SetUp();
        if (!IsSkipped()) {
            MountTmpfs("/etc");
        }
    }
    static void Configure(const std::string& text) {
        std::ofstream("/etc/device-sim.conf") << text;
    }
};

TEST_F(DeviceTest, NumberOfDevicesIsReadForEachCall) {
    uint32_t count = 0;
    ASSERT_EQ(drvGetDevNum(&count), 0U);
    EXPECT_EQ(count, 1U);
    const std::pair<const char*, uint32_t> cases[] = {
        {"devices=4\n", 4}, {"# two\ndevices=2\n", 2},  {"devices=0\n", 0},
        {"devices=x", 1},   {"devices=99999999999", 1}, {"", 1}};
    for (const auto& [text, expected] : cases) {
        Configure(text);
        ASSERT_EQ(drvGetDevNum(&count), 0U);
        EXPECT_EQ(count, expected) << text;
    }
}

TEST_F(DeviceTest, CallsAreWrittenDown) {
    Configure("devices=2\n");
    uint64_t handle = 0;
    // A name that fills its field has no NUL.
    const HalSensorNodeConfig config = Node("12345678901234567890");
    ASSERT_EQ(halSensorNodeRegister(1, &config, &handle), 0U);
    EXPECT_EQ(halSensorNodeUpdateState(1, handle, 1, 208), 0U);
    EXPECT_EQ(halSensorNodeUnregister(1, handle), 0U);
    EXPECT_EQ(halGrpCreate("a\nforged", 4096), 0U);
    EXPECT_EQ(halGrpAddProc("pool", 77, "read-write"), 0U);
    const std::string h = std::to_string(handle);
    EXPECT_THAT(
        LogLines(),
        ElementsAre(
            "register device=1 node=12345678901234567890 type=0x602 sensor=0x27 handle=" + h,
            "update device=1 handle=" + h + " assert=1 event=208",
            "unregister device=1 handle=" + h, "group-create name=a?forged size=4096",
            "group-add name=pool pid=77 access=read-write"));
}

TEST_F(DeviceTest, UnknownDevicesAndHandlesAreRefused) {
    uint64_t handle = 9;
    const HalSensorNodeConfig config = Node("procmgr");
    EXPECT_NE(halSensorNodeRegister(1, &config, &handle), 0U);
    ASSERT_EQ(halSensorNodeRegister(0, &config, &handle), 0U);
    EXPECT_NE(halSensorNodeUpdateState(0, handle + 1, 0, 0), 0U);
    EXPECT_EQ(halSensorNodeUnregister(0, handle), 0U);
    EXPECT_NE(halSensorNodeUnregister(0, handle), 0U);
    EXPECT_NE(halGrpAddProc("pool", 1, "write"), 0U);
}

}  // namespace
