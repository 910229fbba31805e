#include "app/sensor_node_event_reporter.h"

#include "tests/app/app_test_support.h"
#include "tests/fakes/fake_device.h"

namespace ProcMgr::App {
namespace {

using Fakes::FakeDevice;
using Strings = std::vector<std::string>;

const std::string PREFIX = "SensorNodeEventReporter ";

// Every test has a reporter and a worker of its own.
class SensorNode : public testing::Test {
protected:
    void SetUp() override {
        FakeDevice::Get().Reset();
        LogCapture::Clear();
    }

    // The device calls that `action` leads to.
    template <typename Action>
    Strings CallsOf(Action action) {
        const size_t before = FakeDevice::Get().Calls().size();
        action();
        worker_.Drain(SteadyTime::max());
        const Strings calls = FakeDevice::Get().Calls();
        return {calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end()};
    }

    SerialWorker worker_{"device"};
    SensorNodeEventReporter reporter_{worker_};
};

TEST_F(SensorNode, WithoutAUsableCountThereIsOneDevice) {
    const std::pair<uint32_t, uint32_t> cases[] = {{0, 129}, {5, 2}};
    for (const auto& [result, count] : cases) {
        FakeDevice::Get().SetCount(count);
        FakeDevice::Get().Push("drvGetDevNum", result);
        SensorNodeEventReporter reporter(worker_);
        const auto registers = [&] { reporter.RegisterSensorNode({"a", 1, 2}); };
        EXPECT_EQ(CallsOf(registers),
                  (Strings{"drvGetDevNum", "halSensorNodeRegister 0 a 0x1 0x2"}));
        EXPECT_TRUE(LogCapture::Contains(
            LOG_ERR, PREFIX + "GetDeviceNum fail. drvRet=" + std::to_string(result) +
                         ", devNum=" + std::to_string(count)));
    }
}

TEST_F(SensorNode, TheNodesOfTheDaemon) {
    FakeDevice::Get().SetCount(2);
    reporter_.RegisterNodes();
    reporter_.RegisterNodes();  // changes nothing
    EXPECT_EQ(FakeDevice::Get().Calls(),
              (Strings{"drvGetDevNum", "halSensorNodeRegister 0 pm_base_service 0x602 0x27",
                       "halSensorNodeRegister 1 pm_base_service 0x602 0x27",
                       "halSensorNodeRegister 0 pm_general_app 0x603 0x27",
                       "halSensorNodeRegister 1 pm_general_app 0x603 0x27"}));
    EXPECT_EQ(CallsOf([&] { reporter_.UnregisterAll(); }),
              (Strings{"halSensorNodeUnregister 0 1", "halSensorNodeUnregister 1 2",
                       "halSensorNodeUnregister 0 3", "halSensorNodeUnregister 1 4"}));
    EXPECT_EQ(CallsOf([&] {
                  reporter_.ReportEvent(BASE_SERVICE_NODE, 208);
                  reporter_.Raise(BASE_SERVICE_NODE, "a", 208, 0);
                  reporter_.UnregisterSensorNode(BASE_SERVICE_NODE);
              }),
              Strings{});
}

TEST_F(SensorNode, AFailingDeviceDoesNotStopTheOthers) {
    FakeDevice& device = FakeDevice::Get();
    device.SetCount(3);
    device.Push("halSensorNodeRegister", 0);
    device.Push("halSensorNodeRegister", 9);
    EXPECT_TRUE(reporter_.RegisterSensorNode({"n", 0x602, 0x27}));
    device.Push("halSensorNodeUpdateState", 4);
    EXPECT_EQ(
        CallsOf([&] { reporter_.ReportEvent("n", 208, 1); }),
        (Strings{"halSensorNodeUpdateState 0 1 1 0xd0", "halSensorNodeUpdateState 2 2 1 0xd0"}));
    device.Push("halSensorNodeUnregister", 6);
    EXPECT_EQ(CallsOf([&] { reporter_.UnregisterSensorNode("n"); }),
              (Strings{"halSensorNodeUnregister 0 1", "halSensorNodeUnregister 2 2"}));
    const Lines lines = {
        {LOG_ERR, "RegisterSensorNode for n failed. (ret=9)"},
        {LOG_INFO,
         "RegisterSensorNode for n success, nodeType=0x602, sensorType=0x27, reportIds size=2"},
        {LOG_ERR, "ReportEvent failed.(nodeName=n,id=0,fault=1,event=208,ret=4)"},
        {LOG_INFO, "ReportEvent success.(nodeName=n,id=2,fault=1,event=208)"},
        {LOG_ERR, "UnregisterSensorNode for n failed. (id=0,ret=6)"}};
    for (const auto& [level, text] : lines) {
        EXPECT_EQ(LogCapture::Count(level, PREFIX + text), 1U) << text;
    }
    // The node is erased although its unregistration failed.
    EXPECT_EQ(CallsOf([&] { reporter_.RegisterSensorNode({"n", 0x602, 0x27}); }).size(), 3U);
}

// An application raises (+) or withdraws (-) an event.
struct Step {
    char sign;
    const char* app;
    int32_t event;
    uint32_t nodeType = 0;
};

TEST_F(SensorNode, ANodeShowsTheLastStoredFault) {
    const struct {
        const char* name;
        std::vector<Step> steps;
        Strings sent;  // fault and event, of a node with the sensor type 0x10
    } cases[] = {
        {"cleared with the last, in any order, however often raised",
         {{'+', "a", 208}, {'+', "a", 208}, {'+', "b", 208}, {'-', "b", 208}, {'-', "a", 208}},
         {"0 0xd0", "0 0x0"}},
        {"a remaining fault is shown again, with its flag",
         {{'+', "a", 208, 0x617}, {'+', "b", 39, 0x602}, {'-', "b", 39, 0x602}},
         {"1 0xd0", "0 0x27", "1 0xd0"}},
        {"a fault that is raised again becomes the last",
         {{'+', "a", 208}, {'+', "b", 39}, {'+', "a", 208}},
         {"0 0xd0", "0 0x27", "0 0xd0"}},
        {"a fault that is not stored is not withdrawn",
         {{'-', "a", 208}, {'+', "a", 208}, {'-', "a", 39}, {'-', "b", 208}},
         {"0 0xd0"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        FakeDevice::Get().Reset();
        SensorNodeEventReporter reporter(worker_);
        reporter.RegisterSensorNode({"n", 1, 0x10});
        Strings expected;
        for (const std::string& sent : test.sent) {
            expected.push_back("halSensorNodeUpdateState 0 1 " + sent);
        }
        EXPECT_EQ(CallsOf([&] {
                      for (const Step& step : test.steps) {
                          step.sign == '+'
                              ? reporter.Raise("n", step.app, step.event, step.nodeType)
                              : reporter.Withdraw("n", step.app, step.event);
                      }
                  }),
                  expected);
    }
}

TEST_F(SensorNode, AFaultFromBeforeTheRegistrationIsShownAfterIt) {
    reporter_.Raise(GENERAL_APP_NODE, "early", EVENT_START_FAILED, 0);
    reporter_.Raise(GENERAL_APP_NODE, "over", EVENT_START_FAILED, 0);
    reporter_.Withdraw(GENERAL_APP_NODE, "over", EVENT_START_FAILED);
    worker_.Drain(SteadyTime::max());
    EXPECT_TRUE(FakeDevice::Get().Calls().empty());
    reporter_.RegisterNodes();
    EXPECT_EQ(FakeDevice::Get().Calls().back(), "halSensorNodeUpdateState 0 2 0 0xd0");
    EXPECT_EQ(CallsOf([&] { reporter_.Withdraw(GENERAL_APP_NODE, "early", EVENT_START_FAILED); }),
              Strings{"halSensorNodeUpdateState 0 2 0 0x0"});
}

}  // namespace
}  // namespace ProcMgr::App
