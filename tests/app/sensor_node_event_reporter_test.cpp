#include "app/sensor_node_event_reporter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fakes/fake_device.h"
#include "tests/fakes/log_capture.h"
#include "tests/main/isolated.h"

namespace ProcMgr::App {
namespace {

using Fakes::FakeDevice;
using Fakes::LogCapture;
using Fakes::LogLine;
using Strings = std::vector<std::string>;

const std::string PREFIX = "SensorNodeEventReporter ";

// Each body in a child of its own: the reporter is one for the process and asks once how many
// devices there are.
using SensorNode = IsolatedTest;

template <typename Body>
void WithDevices(uint32_t count, Body body) {
    const int status = RunIsolated([&] {
        FakeDevice::Get().Reset();
        FakeDevice::Get().SetCount(count);
        LogCapture::Clear();
        body(SensorNodeEventReporter::GetInstance());
    });
    EXPECT_EQ(status, 0);
}

// The device calls of `action` alone.
template <typename Action>
Strings CallsOf(Action action) {
    const size_t before = FakeDevice::Get().Calls().size();
    action();
    const Strings calls = FakeDevice::Get().Calls();
    return {calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end()};
}

TEST_F(SensorNode, DeviceCount) {
    struct Case {
        uint32_t result;
        uint32_t count;
        uint32_t used;
    };
    const Case cases[] = {{0, 0, 0}, {0, 1, 1}, {0, 128, 128}, {0, 129, 1}, {5, 2, 1}, {5, 200, 1}};
    for (const Case& test : cases) {
        WithDevices(test.count, [&](SensorNodeEventReporter& reporter) {
            FakeDevice::Get().Push("drvGetDevNum", test.result);
            EXPECT_EQ(SensorNodeEventReporter::GetDeviceNum(), test.used);
            const std::string count = std::to_string(test.count);
            const LogLine failed{LOG_ERR, PREFIX + "GetDeviceNum fail. drvRet=" +
                                              std::to_string(test.result) + ", devNum=" + count};
            const LogLine done{LOG_INFO, PREFIX + "GetDeviceNum success. devNum=" + count};
            const bool isValid = test.result == 0 && test.count < 129;
            EXPECT_EQ(LogCapture::Lines(), (std::vector<LogLine>{isValid ? done : failed}));

            FakeDevice::Get().Push("drvGetDevNum", test.result);
            EXPECT_TRUE(reporter.RegisterSensorNode({"a", 1, 2, -1}));
            FakeDevice::Get().SetCount(7);  // too late: asked once
            EXPECT_EQ(CallsOf([&] {
                          reporter.RegisterSensorNode({"b", 1, 2, 0});
                      }).size(),
                      test.used);
            EXPECT_EQ(CallsOf([&] { reporter.ReportEvent("a", 208); }).size(), test.used);
        });
    }
}

TEST_F(SensorNode, TheDaemonsNodes) {
    WithDevices(2, [](SensorNodeEventReporter& reporter) {
        reporter.RegisterNodes();
        reporter.RegisterNodes();
        EXPECT_EQ(FakeDevice::Get().Calls(),
                  (Strings{"drvGetDevNum", "halSensorNodeRegister 0 pm_base_service 0x602 0x27",
                           "halSensorNodeRegister 1 pm_base_service 0x602 0x27",
                           "halSensorNodeRegister 0 pm_general_app 0x603 0x27",
                           "halSensorNodeRegister 1 pm_general_app 0x603 0x27"}));
        EXPECT_TRUE(LogCapture::Contains(
            LOG_INFO, PREFIX + "RegisterSensorNode for pm_general_app success, nodeType=0x603, "
                               "sensorType=0x27, reportIds size=2"));
        EXPECT_EQ(CallsOf([&] { reporter.UnregisterAll(); }),
                  (Strings{"halSensorNodeUnregister 0 1", "halSensorNodeUnregister 1 2",
                           "halSensorNodeUnregister 0 3", "halSensorNodeUnregister 1 4"}));
        EXPECT_EQ(CallsOf([&] {
                      reporter.UnregisterAll();
                      reporter.ReportEvent(BASE_SERVICE_NODE, 208);
                      reporter.Raise(BASE_SERVICE_NODE, "a", 208, 0);
                      reporter.Withdraw(BASE_SERVICE_NODE, "a", 208);
                      reporter.UnregisterSensorNode(BASE_SERVICE_NODE);
                  }),
                  Strings{});
    });
}

TEST_F(SensorNode, NamesAndOneDevice) {
    WithDevices(4, [](SensorNodeEventReporter& reporter) {
        const std::string name(20, 'n');
        EXPECT_FALSE(reporter.RegisterSensorNode({name, 1, 2, 3}));
        EXPECT_EQ(LogCapture::Lines(),
                  (std::vector<LogLine>{
                      {LOG_ERR, PREFIX + "RegisterSensorNode Copy sensor node name for " + name +
                                    " failed."}}));
        EXPECT_TRUE(reporter.RegisterSensorNode({name.substr(1), 0x617, 0x10, 3}));
        EXPECT_EQ(FakeDevice::Get().Calls(),
                  (Strings{"halSensorNodeRegister 3 " + name.substr(1) + " 0x617 0x10"}));
    });
}

TEST_F(SensorNode, AFailingDeviceDoesNotStopTheOthers) {
    WithDevices(3, [](SensorNodeEventReporter& reporter) {
        FakeDevice& device = FakeDevice::Get();
        device.Push("halSensorNodeRegister", 0);
        device.Push("halSensorNodeRegister", 9);
        EXPECT_TRUE(reporter.RegisterSensorNode({"n", 0x602, 0x27}));
        EXPECT_TRUE(
            LogCapture::Contains(LOG_ERR, PREFIX + "RegisterSensorNode for n failed. (ret=9)"));
        EXPECT_TRUE(LogCapture::Contains(LOG_INFO, PREFIX +
                                                       "RegisterSensorNode for n success, "
                                                       "nodeType=0x602, sensorType=0x27, reportIds "
                                                       "size=2"));
        LogCapture::Clear();
        device.Push("halSensorNodeUpdateState", 4);
        EXPECT_EQ(CallsOf([&] { reporter.ReportEvent("n", 208, 1); }),
                  (Strings{"halSensorNodeUpdateState 0 1 1 0xd0",
                           "halSensorNodeUpdateState 2 2 1 0xd0"}));
        EXPECT_EQ(
            LogCapture::Lines(),
            (std::vector<LogLine>{
                {LOG_ERR, PREFIX + "ReportEvent failed.(nodeName=n,id=0,fault=1,event=208,"
                                   "ret=4)"},
                {LOG_INFO, PREFIX + "ReportEvent success.(nodeName=n,id=2,fault=1,event=208)"}}));
        LogCapture::Clear();
        device.Push("halSensorNodeUnregister", 6);
        EXPECT_EQ(CallsOf([&] { reporter.UnregisterSensorNode("n"); }),
                  (Strings{"halSensorNodeUnregister 0 1", "halSensorNodeUnregister 2 2"}));
        EXPECT_EQ(LogCapture::Lines(),
                  (std::vector<LogLine>{
                      {LOG_ERR, PREFIX + "UnregisterSensorNode for n failed. (id=0,ret=6)"}}));
        // The record is gone all the same.
        EXPECT_EQ(CallsOf([&] { reporter.RegisterSensorNode({"n", 0x602, 0x27}); }).size(), 3U);
    });
}

TEST_F(SensorNode, RepeatsAreSuppressed) {
    WithDevices(1, [](SensorNodeEventReporter& reporter) {
        reporter.RegisterSensorNode({"n", 1, 2});
        reporter.RegisterSensorNode({"other", 1, 2});
        FakeDevice::Get().Push("halSensorNodeUpdateState", 3);  // also after a failure
        const Strings calls = CallsOf([&] {
            for (const int32_t event : {208, 208, 39, 39, 208, 0, 0}) {
                reporter.ReportEvent("n", event);
            }
            reporter.ReportEvent("other", 39);
            reporter.ReportEvent("unknown", 39);
        });
        EXPECT_EQ(
            calls,
            (Strings{"halSensorNodeUpdateState 0 1 0 0xd0", "halSensorNodeUpdateState 0 1 0 0x27",
                     "halSensorNodeUpdateState 0 1 0 0xd0", "halSensorNodeUpdateState 0 1 0 0x0",
                     "halSensorNodeUpdateState 0 2 0 0x27"}));
    });
}

struct StandingStep {
    char sign;
    const char* app;
    int32_t event;
    uint32_t nodeType = 0;
};

struct StandingCase {
    const char* name;
    std::vector<StandingStep> steps;
    Strings sent;  // fault and event
};

void Take(SensorNodeEventReporter& reporter, const std::vector<StandingStep>& steps) {
    for (const StandingStep& step : steps) {
        step.sign == '+' ? reporter.Raise("n", step.app, step.event, step.nodeType)
                         : reporter.Withdraw("n", step.app, step.event);
    }
}

// What a node with sensor type 0x10 shows while applications raise (+) and withdraw (-) events.
TEST_F(SensorNode, StandingFaults) {
    const StandingCase cases[] = {
        {"cleared only by the last",
         {{'+', "a", 208}, {'+', "b", 208}, {'-', "a", 208}},
         {"0 0xd0"}},
        {"by the last, whatever the order, however often raised",
         {{'+', "a", 208}, {'+', "a", 208}, {'+', "b", 208}, {'-', "b", 208}, {'-', "a", 208}},
         {"0 0xd0", "0 0x0"}},
        {"the one that is left shows again",
         {{'+', "a", 208}, {'+', "b", 39}, {'-', "b", 39}},
         {"0 0xd0", "0 0x27", "0 0xd0"}},
        {"two events of one service",
         {{'+', "a", 208}, {'+', "a", 39}, {'-', "a", 208}, {'-', "a", 39}},
         {"0 0xd0", "0 0x27", "0 0x0"}},
        {"nothing to withdraw",
         {{'-', "a", 208}, {'+', "a", 208}, {'-', "a", 39}, {'-', "b", 208}},
         {"0 0xd0"}},
        {"with the fault flag",
         {{'+', "a", 208, 0x617}, {'+', "b", 39, 0x602}, {'-', "b", 39, 0x602}},
         {"1 0xd0", "0 0x27", "1 0xd0"}},
    };
    for (const StandingCase& test : cases) {
        SCOPED_TRACE(test.name);
        WithDevices(1, [&](SensorNodeEventReporter& reporter) {
            reporter.RegisterSensorNode({"n", 1, 0x10});
            const Strings calls = CallsOf([&] { Take(reporter, test.steps); });
            Strings expected;
            for (const std::string& sent : test.sent) {
                expected.push_back("halSensorNodeUpdateState 0 1 " + sent);
            }
            EXPECT_EQ(calls, expected);
        });
    }
}

TEST_F(SensorNode, AFaultBeforeTheNodeIsShownWhenItIsThere) {
    WithDevices(1, [](SensorNodeEventReporter& reporter) {
        reporter.Raise(GENERAL_APP_NODE, "early", EVENT_START_FAILED, 0);
        reporter.Raise(GENERAL_APP_NODE, "over", EVENT_START_FAILED, 0);
        reporter.Withdraw(GENERAL_APP_NODE, "over", EVENT_START_FAILED);
        EXPECT_TRUE(FakeDevice::Get().Calls().empty());
        reporter.RegisterNodes();
        EXPECT_EQ(FakeDevice::Get().Calls().back(), "halSensorNodeUpdateState 0 2 0 0xd0");
        EXPECT_EQ(
            CallsOf([&] { reporter.Withdraw(GENERAL_APP_NODE, "early", EVENT_START_FAILED); }),
            Strings{"halSensorNodeUpdateState 0 2 0 0x0"});
    });
}

TEST(SensorNodeRule, FaultFlag) {
    EXPECT_EQ(SensorNodeEventReporter::FaultFlag(0x617, 0x28), 1);
    EXPECT_EQ(SensorNodeEventReporter::FaultFlag(0x617, 0x27), 0);
    EXPECT_EQ(SensorNodeEventReporter::FaultFlag(0x602, 0x28), 0);
}

}  // namespace
}  // namespace ProcMgr::App
