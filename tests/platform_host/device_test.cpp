#include "platform/device.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/access_manager.h"
#include "tests/support/private_mounts.h"

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

class DeviceTest : public testing::Test {
protected:
    void SetUp() override {
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "the kernel allows no private mount namespace";
        }
        MountTmpfs("/run");
        MountTmpfs("/etc");
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
        {"devices=4\n", 4},        {"devices=129", 129},
        {"# two\ndevices=2\n", 2}, {"devices=0\n", 0},
        {"devices=x", 1},          {"devices=99999999999", 1},
        {"devices=-1", 1},         {"", 1}};
    for (const auto& [text, expected] : cases) {
        Configure(text);
        ASSERT_EQ(drvGetDevNum(&count), 0U);
        EXPECT_EQ(count, expected) << text;
    }
    ASSERT_EQ(unlink("/etc/device-sim.conf"), 0);
    ASSERT_EQ(mkdir("/etc/device-sim.conf", 0755), 0);
    ASSERT_EQ(drvGetDevNum(&count), 0U);
    EXPECT_EQ(count, 1U);
    EXPECT_NE(drvGetDevNum(nullptr), 0U);
    EXPECT_THAT(LogLines(), testing::IsEmpty());
}

TEST_F(DeviceTest, CallsAreWrittenDown) {
    Configure("devices=2\n");
    uint64_t handle = 0;
    const HalSensorNodeConfig config = Node("procmgr");
    ASSERT_EQ(halSensorNodeRegister(1, &config, &handle), 0U);
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(halSensorNodeUpdateState(1, handle, 1, 208), 0U);
    EXPECT_EQ(halSensorNodeUpdateState(1, handle, 0, -1), 0U);
    EXPECT_EQ(halSensorNodeUnregister(1, handle), 0U);
    EXPECT_EQ(halGrpCreate("pool", 4096), 0U);
    EXPECT_EQ(halGrpAddProc("pool", 77, "read-write"), 0U);
    const std::string h = std::to_string(handle);
    EXPECT_THAT(LogLines(),
                ElementsAre("register device=1 node=procmgr type=0x602 sensor=0x27 handle=" + h,
                            "update device=1 handle=" + h + " assert=1 event=208",
                            "update device=1 handle=" + h + " assert=0 event=-1",
                            "unregister device=1 handle=" + h, "group-create name=pool size=4096",
                            "group-add name=pool pid=77 access=read-write"));
}

TEST_F(DeviceTest, UnknownDevicesAndHandlesAreRefused) {
    Configure("devices=2\n");
    uint64_t handle = 9;
    // A name that fills its field has no NUL.
    const HalSensorNodeConfig config = Node("12345678901234567890");
    EXPECT_NE(halSensorNodeRegister(2, &config, &handle), 0U);
    EXPECT_EQ(
        LogLines().back(),
        "register device=2 node=12345678901234567890 type=0x602 sensor=0x27 handle=0 refused");
    ASSERT_EQ(halSensorNodeRegister(0, &config, &handle), 0U);
    EXPECT_NE(halSensorNodeUpdateState(1, handle, 0, 0), 0U);
    EXPECT_NE(halSensorNodeUpdateState(0, handle + 1, 0, 0), 0U);
    EXPECT_NE(halSensorNodeUnregister(1, handle), 0U);
    EXPECT_EQ(halSensorNodeUnregister(0, handle), 0U);
    EXPECT_NE(halSensorNodeUnregister(0, handle), 0U);
    EXPECT_NE(halSensorNodeUpdateState(0, handle, 0, 0), 0U);
    EXPECT_NE(halSensorNodeRegister(0, nullptr, &handle), 0U);
    EXPECT_NE(halSensorNodeRegister(0, &config, nullptr), 0U);
    EXPECT_NE(halGrpCreate(nullptr, 1), 0U);
    EXPECT_NE(halGrpAddProc("pool", 0, "read"), 0U);
    EXPECT_NE(halGrpAddProc("pool", 1, "write"), 0U);
    EXPECT_NE(halGrpAddProc("pool", 1, nullptr), 0U);
}

TEST_F(DeviceTest, LogIsOnlyAppendedTo) {
    std::ofstream("/run/device-sim.log") << "before\n";
    const std::string longName(1000, 'n');
    EXPECT_EQ(halGrpCreate("a\nforged", 1), 0U);
    EXPECT_EQ(halGrpCreate(longName.c_str(), 1), 0U);
    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "before");
    EXPECT_EQ(lines[1], "group-create name=a?forged size=1");
    EXPECT_THAT(lines[2], testing::StartsWith("group-create name=nnn"));
    // A log that cannot be written does not fail the device.
    ASSERT_EQ(unlink("/run/device-sim.log"), 0);
    ASSERT_EQ(mkdir("/run/device-sim.log", 0755), 0);
    EXPECT_EQ(halGrpCreate("pool", 1), 0U);
}

TEST_F(DeviceTest, ThreadsGetHandlesAndLinesOfTheirOwn) {
    constexpr int THREADS = 4;
    constexpr int CALLS = 100;
    std::vector<std::vector<uint64_t>> handles(THREADS);
    std::vector<std::thread> threads;
    for (std::vector<uint64_t>& own : handles) {
        threads.emplace_back([&own] {
            const HalSensorNodeConfig config = Node("node");
            for (int i = 0; i < CALLS; ++i) {
                uint64_t handle = 0;
                EXPECT_EQ(halSensorNodeRegister(0, &config, &handle), 0U);
                EXPECT_EQ(halSensorNodeUpdateState(0, handle, 0, i), 0U);
                EXPECT_EQ(halSensorNodeUnregister(0, handle), 0U);
                own.push_back(handle);
            }
        });
    }
    std::set<uint64_t> distinct;
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        distinct.insert(handles[i].begin(), handles[i].end());
    }
    EXPECT_EQ(distinct.size(), size_t{THREADS} * CALLS);
    const std::vector<std::string> lines = LogLines();
    EXPECT_EQ(lines.size(), size_t{THREADS} * CALLS * 3);
    EXPECT_THAT(lines, testing::Each(testing::ContainsRegex(
                           "^(register device=0 node=node type=0x602 sensor=0x27 handle=[0-9]+|"
                           "update device=0 handle=[0-9]+ assert=0 event=[0-9]+|"
                           "unregister device=0 handle=[0-9]+)$")));
}

TEST(AccessManagerTest, EveryProcessIsLetThrough) {
    EXPECT_EQ(ZornInitProc({"app", "/bin/app"}), 0);
    EXPECT_EQ(ZornInitProc({"", ""}), 0);
    ZornRetrieveService();
}

}  // namespace
