// The simulated device: results of the calls, and the log of all calls.
#include "platform/device.h"

#include <algorithm>

#include "tests/support/files.h"
#include "tests/support/private_run.h"

namespace {

using ProcMgr::Tests::ReadFile;
using ProcMgr::Tests::WriteFile;

using DeviceTest = PrivateRunTest;

TEST_F(DeviceTest, CallsAreLoggedAndUnknownHandlesRefused) {
    BindFile("", "/etc/device-sim.conf");
    for (const auto& [text, expected] : {std::pair{"", 1U},
                                         {"# none\ndevices=0\n", 0U},
                                         {"devices=99999999999", 1U},
                                         {"devices=2\n", 2U}}) {
        WriteFile("/etc/device-sim.conf", text);
        uint32_t count = 9;
        ASSERT_EQ(drvGetDevNum(&count), 0U);
        EXPECT_EQ(count, expected) << text;
    }
    uint64_t handle = 9;
    // A name that fills its field has no NUL.
    HalSensorNodeConfig config{};
    std::fill(std::begin(config.name), std::end(config.name), 'n');
    config.nodeType = 0x602;
    config.sensorType = 0x27;
    EXPECT_NE(halSensorNodeRegister(2, &config, &handle), 0U);
    ASSERT_EQ(halSensorNodeRegister(1, &config, &handle), 0U);
    EXPECT_EQ(halSensorNodeUpdateState(1, handle, 1, 208), 0U);
    EXPECT_NE(halSensorNodeUpdateState(0, handle, 1, 208), 0U);
    EXPECT_EQ(halSensorNodeUnregister(1, handle), 0U);
    EXPECT_NE(halSensorNodeUnregister(1, handle), 0U);
    EXPECT_EQ(halGrpCreate("a\nforged", 4096), 0U);
    EXPECT_EQ(halGrpAddProc("pool", 77, "read-write"), 0U);
    EXPECT_NE(halGrpAddProc("pool", 77, "write"), 0U);
    const std::string h = "handle=" + std::to_string(handle);
    const std::string node = "node=" + std::string(sizeof(config.name), 'n');
    EXPECT_EQ(ReadFile("/run/device-sim.log"),
              "register device=2 " + node + " type=0x602 sensor=0x27 handle=0 refused\n" +
                  "register device=1 " + node + " type=0x602 sensor=0x27 " + h + "\n" +
                  "update device=1 " + h + " assert=1 event=208\n" + "update device=0 " + h +
                  " assert=1 event=208 refused\n" + "unregister device=1 " + h + "\n" +
                  "unregister device=1 " + h + " refused\n" +
                  "group-create name=a?forged size=4096\n" +
                  "group-add name=pool pid=77 access=read-write\n" +
                  "group-add name=pool pid=77 access=write refused\n");
}

TEST_F(DeviceTest, TheLogIsRenamedAtItsLimit) {
    const std::string full(size_t{1} << 20, 'x');
    WriteFile("/run/device-sim.log", full);
    ASSERT_EQ(halGrpCreate("g", 1), 0U);
    EXPECT_TRUE(ReadFile("/run/device-sim.log.1") == full);
    EXPECT_EQ(ReadFile("/run/device-sim.log"), "group-create name=g size=1\n");
}

}  // namespace
