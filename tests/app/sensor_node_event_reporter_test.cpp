#include "app/sensor_node_event_reporter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "resource/device_worker.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"

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
    DeviceWorker().Drain(SteadyTime::max());
    const Strings calls = FakeDevice::Get().Calls();
    return {calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end()};
}

TEST_F(SensorNode, WithoutAUsableCountThereIsOneDevice) {
    const std::pair<uint32_t, uint32_t> cases[] = {{0, 129}, {5, 2}};
    for (const auto& [result, count] : cases) {
        const std::string line = PREFIX + "GetDeviceNum fail. drvRet=" + std::to_string(result) +
                                 ", devNum=" + std::to_string(count);
        WithDevices(count, [&line, result = result](SensorNodeEventReporter& reporter) {
            FakeDevice::Get().Push("drvGetDevNum", result);
            reporter.RegisterSensorNode({"a", 1, 2});
            EXPECT_EQ(LogCapture::Lines().front(), (LogLine{LOG_ERR, line}));
            EXPECT_EQ(CallsOf([&] { reporter.ReportEvent("a", 208); }).size(), 1U);
            EXPECT_EQ(CallsOf([&] { reporter.ReportEvent("a", 208); }).size(), 0U) << "is shown";
        });
    }
}

TEST_F(SensorNode, TheDaemonsNodes) {
    WithDevices(2, [](SensorNodeEventReporter& reporter) {
        reporter.RegisterNodes();
        reporter.RegisterNodes();  // changes nothing
        EXPECT_EQ(FakeDevice::Get().Calls(),
                  (Strings{"drvGetDevNum", "halSensorNodeRegister 0 pm_base_service 0x602 0x27",
                           "halSensorNodeRegister 1 pm_base_service 0x602 0x27",
                           "halSensorNodeRegister 0 pm_general_app 0x603 0x27",
                           "halSensorNodeRegister 1 pm_general_app 0x603 0x27"}));
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

TEST_F(SensorNode, AFailingDeviceDoesNotStopTheOthers) {
    WithDevices(3, [](SensorNodeEventReporter& reporter) {
        FakeDevice& device = FakeDevice::Get();
        device.Push("halSensorNodeRegister", 0);
        device.Push("halSensorNodeRegister", 9);
        EXPECT_TRUE(reporter.RegisterSensorNode({"n", 0x602, 0x27}));
        device.Push("halSensorNodeUpdateState", 4);
        EXPECT_EQ(CallsOf([&] { reporter.ReportEvent("n", 208, 1); }),
                  (Strings{"halSensorNodeUpdateState 0 1 1 0xd0",
                           "halSensorNodeUpdateState 2 2 1 0xd0"}));
        device.Push("halSensorNodeUnregister", 6);
        EXPECT_EQ(CallsOf([&] { reporter.UnregisterSensorNode("n"); }),
                  (Strings{"halSensorNodeUnregister 0 1", "halSensorNodeUnregister 2 2"}));
        const std::pair<int, std::string> lines[] = {
            {LOG_ERR, "RegisterSensorNode for n failed. (ret=9)"},
            {LOG_INFO,
             "RegisterSensorNode for n success, nodeType=0x602, sensorType=0x27, reportIds size=2"},
            {LOG_ERR, "ReportEvent failed.(nodeName=n,id=0,fault=1,event=208,ret=4)"},
            {LOG_INFO, "ReportEvent success.(nodeName=n,id=2,fault=1,event=208)"},
            {LOG_ERR, "UnregisterSensorNode for n failed. (id=0,ret=6)"}};
        for (const auto& [level, text] : lines) {
            EXPECT_EQ(LogCapture::Count(level, PREFIX + text), 1U) << text;
        }
        // The record is gone all the same.
        EXPECT_EQ(CallsOf([&] { reporter.RegisterSensorNode({"n", 0x602, 0x27}); }).size(), 3U);
    });
}

// An application raises (+) or withdraws (-) an event.
struct Step {
    char sign;
    const char* app;
    int32_t event;
    uint32_t nodeType = 0;
};

void Take(const std::vector<Step>& steps, SensorNodeEventReporter& reporter) {
    for (const Step& step : steps) {
        step.sign == '+' ? reporter.Raise("n", step.app, step.event, step.nodeType)
                         : reporter.Withdraw("n", step.app, step.event);
    }
}

// What a node with sensor type 0x10 shows.
TEST_F(SensorNode, StandingFaults) {
    const struct {
        const char* name;
        std::vector<Step> steps;
        Strings sent;  // fault and event
    } cases[] = {
        {"cleared only by the last",
         {{'+', "a", 208}, {'+', "b", 208}, {'-', "a", 208}},
         {"0 0xd0"}},
        {"by the last, whatever the order, however often raised",
         {{'+', "a", 208}, {'+', "a", 208}, {'+', "b", 208}, {'-', "b", 208}, {'-', "a", 208}},
         {"0 0xd0", "0 0x0"}},
        {"the one that is left shows again",
         {{'+', "a", 208}, {'+', "b", 39}, {'-', "b", 39}},
         {"0 0xd0", "0 0x27", "0 0xd0"}},
        {"the one that is raised again is the last",
         {{'+', "a", 208}, {'+', "b", 39}, {'+', "a", 208}},
         {"0 0xd0", "0 0x27", "0 0xd0"}},
        {"nothing to withdraw",
         {{'-', "a", 208}, {'+', "a", 208}, {'-', "a", 39}, {'-', "b", 208}},
         {"0 0xd0"}},
        {"with the fault flag",
         {{'+', "a", 208, 0x617}, {'+', "b", 39, 0x602}, {'-', "b", 39, 0x602}},
         {"1 0xd0", "0 0x27", "1 0xd0"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        WithDevices(1, [&](SensorNodeEventReporter& reporter) {
            reporter.RegisterSensorNode({"n", 1, 0x10});
            const Strings calls = CallsOf([&] { Take(test.steps, reporter); });
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

}  // namespace
}  // namespace ProcMgr::App
