// Deaths and restarts of base services, with real processes.
#include <gmock/gmock.h>

#include "app/sensor_node_event_reporter.h"
#include "resource/device_worker.h"
#include "tests/baseservice/base_fixture.h"
#include "tests/fakes/fake_device.h"

namespace ProcMgr {
namespace {

using App::SensorNodeEventReporter;
using Fakes::FakeDevice;
using Fakes::FakeHeartBeat;
using Fakes::FakeMuxa;
using Fakes::LogCapture;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

size_t CountDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class SupervisionTest : public BaseFixture {
protected:
    void SetUp() override {
        BaseFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        FakeDevice::Get().Reset();
        SensorNodeEventReporter::GetInstance().UnregisterAll();
        SensorNodeEventReporter::GetInstance().RegisterNodes();
        ASSERT_TRUE(pipes_.RegServiceCallBack("zornmgr", 0, 0));
        LogCapture::Clear();
    }
    void TearDown() override {
        SensorNodeEventReporter::GetInstance().UnregisterAll();
        BaseFixture::TearDown();
    }

    ManifestData Restartable(const std::string& name, const std::string& policy,
                             const std::string& script = STAYS) const {
        ManifestData data = Service(name, script);
        data.restart = policy;
        return data;
    }
    // Kills the process and waits until the reaper has stored its exit.
    void Kill(pid_t pid) {
        const auto stored = Between("PROCMGR : SetExitStatus ", ",").size();
        kill(pid, SIGKILL);
        ASSERT_TRUE(
            WaitUntil([&] { return Between("PROCMGR : SetExitStatus ", ",").size() > stored; }));
    }
    // Of the last process that was started.
    static pid_t LastPid() {
        pid_t pid = -1;
        for (const auto& line : LogCapture::Lines()) {
            const size_t at = line.text.find(", pid=");
            if (line.text.find("Start baseApp success") != std::string::npos) {
                pid = std::stoi(line.text.substr(at + 6));
            }
        }
        return pid;
    }
    // States of a service that the access manager was told, in order.
    static std::vector<std::string> Reported(const std::string& name) {
        return Between("PROCMGR : report " + name + "'s state: ", " to zornmgr successfully");
    }
    // What is to be seen on the node of the base services, in order.
    static std::vector<std::string> Events() {
        std::vector<std::string> events;
        DeviceWorker().Drain(SteadyTime::max());
        const std::string update = "halSensorNodeUpdateState 0 1 ";
        for (const std::string& call : FakeDevice::Get().Calls()) {
            if (call.starts_with(update)) {
                events.push_back(call.substr(update.size()));
            }
        }
        return events;
    }
};

TEST_F(SupervisionTest, ADeathIsReportedAndTheServiceRestarted) {
    StartReaper();
    ManifestData data = Restartable("svc", "on-forever");
    data.gid = 77;
    const pid_t first = Start(data);
    Check();
    Kill(first);
    LogCapture::Clear();
    Check();
    const pid_t second = LastPid();
    ASSERT_NE(second, -1);
    EXPECT_NE(second, first);
    const std::string head = "PROCMGR: CheckThread : owner=svc, pid=PID, state=";
    std::vector<std::string> lines;
    for (const auto& [level, text] : MaskedLines()) {
        // The device has a thread of its own.
        if (!text.starts_with("SensorNode")) {
            lines.push_back(std::to_string(level) + " " + text);
        }
    }
    EXPECT_THAT(Events(), ElementsAre("0 0xd0", "0 0x0"));
    EXPECT_THAT(
        lines,
        ElementsAre("6 PROCMGR : RUNNING to TERMINATED appName=svc, pid=PID",
                    testing::StartsWith("4 PROCMGR : Process=svc, pid=PID"),
                    "4 " + head + "TERMINATED unexpectedly terminated.",
                    "6 STAMP PM report appState to zornmgr, appState=TERMINATED_ABNORMAL_EXIT, "
                    "appName=svc, pid=PID",
                    "6 PROCMGR : report svc's state: 4 to zornmgr successfully",
                    "6 " + head + "TERMINATED will restart now",
                    "6 PROCMGR : Restarting process svc",
                    "6 STAMP Start baseApp success appName=svc, binPath=/bin/sh, pid=PID, "
                    "isDelayCoreAffinity_=0",
                    "6 STAMP PM report appState to zornmgr, appState=RUNNING_NORMAL_START, "
                    "appName=svc, pid=PID",
                    "6 PROCMGR : report svc's state: 0 to zornmgr successfully",
                    testing::StartsWith("6 ********* PROCMGR : RegServiceCallBack success"),
                    "6 " + head + "STARTING restart success"));
    EXPECT_EQ(FakeMuxa::Get().Opens().back().attributes.value, 77U);
    EXPECT_EQ(services_.GetState("svc"), STARTING);
    Check();
    EXPECT_EQ(services_.GetState("svc"), RUNNING);
}

TEST_F(SupervisionTest, APassDealsWithOneServiceAfterTheOther) {
    StartReaper();
    const pid_t one = Start(Restartable("one", "on-forever"));
    const pid_t two = Start(Restartable("two", "on-forever"));
    Check();
    Kill(two);
    Kill(one);
    LogCapture::Clear();
    Check();
    EXPECT_THAT(Between("PROCMGR: CheckThread : owner=", ","),
                ElementsAre("one", "one", "one", "two", "two", "two"))
        << "died, will restart, restarted";
}

TEST_F(SupervisionTest, AReportingServiceGetsItsChannelAndHeartbeatAnew) {
    StartReaper();
    ManifestData data = Restartable("svc", "on-failure");
    data.reporting = true;
    const pid_t first = Start(data);
    const int pipe = pipes_.GetServiceFd("svc");
    Report("svc", BaseServiceStateType::RUNNING);
    EXPECT_EQ(FakeHeartBeat::Get().Notify("svc", 1), 1);
    EXPECT_THAT(Events(), ElementsAre("0 0x27"));

    Kill(first);
    Check();
    const pid_t second = LastPid();
    EXPECT_THAT(FakeMuxa::Get().Closes(), Contains(pipe));
    EXPECT_GT(pipes_.GetServiceFd("svc"), 0);
    EXPECT_EQ(FakeHeartBeat::Get().Watched("svc"), second);
    EXPECT_EQ(services_.HeartBeatNotify("svc", 3, first, 1), 1);
    EXPECT_THAT(Events(), ElementsAre("0 0x27", "0 0xd0")) << "the watch's fault ended with it";
    Check();
    EXPECT_EQ(services_.GetState("svc"), STARTING) << "until it reports itself";
    Report("svc", BaseServiceStateType::RUNNING);
    EXPECT_THAT(Events(), ElementsAre("0 0x27", "0 0xd0", "0 0x0"));
    EXPECT_EQ(FakeHeartBeat::Get().Notify("svc", 0), 1);
    EXPECT_EQ(Events().size(), 3U) << "no fault stood";
    EXPECT_THAT(Reported("svc"), ElementsAre("0", "4", "0"));
}

TEST_F(SupervisionTest, AThousandDeathsLeakNothing) {
    constexpr size_t DEATHS = 1000;
    StartReaper();
    Start(Restartable("svc", "on-forever"));
    StartChecker();
    size_t descriptors = 0;
    for (size_t death = 1; death <= DEATHS; ++death) {
        const pid_t pid = LastPid();
        LogCapture::Clear();
        kill(pid, SIGKILL);
        ASSERT_TRUE(LogCapture::WaitForPart(LOG_INFO, "STARTING restart success", PATIENCE))
            << "death " << death;
        ASSERT_EQ(Between("PROCMGR : SetExitStatus ", ",").size(), 1U);
        ASSERT_THAT(Reported("svc"), ElementsAre("4", "0"));
        ASSERT_EQ(StartedNames().size(), 1U);
        if (death == 1) {
            descriptors = CountDescriptors();
        }
    }
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(FakeMuxa::Get().OpenFds().size(), 2U) << "its own and that of zornmgr";
}

TEST_F(SupervisionTest, ARestartThatFailsIsTriedInEachCycleUpToTheLimit) {
    const std::string program = directory_ + "/program";
    std::filesystem::copy_file("/bin/sleep", program);
    StartReaper();
    ManifestData data = Restartable("svc", "on-failure");
    data.bin = program;
    data.args = {"60"};
    const pid_t pid = Start(data);
    Check();
    std::filesystem::remove(program);
    Kill(pid);
    LogCapture::Clear();
    for (int cycle = 1; cycle <= 5; ++cycle) {
        Check();
        EXPECT_EQ(services_.GetState("svc"), TERMINATED);
        EXPECT_EQ(LogCapture::Count(LOG_ERR, "PROCMGR : Restarting process : svc failed "),
                  static_cast<size_t>(cycle));
    }
    Check();
    EXPECT_EQ(services_.GetState("svc"), std::nullopt);
    EXPECT_THAT(Reported("svc"), ElementsAre("4", "4", "4", "4", "4", "4"));
    EXPECT_THAT(Events(), ElementsAre("0 0xd0")) << "one fault, however often it is seen";
    EXPECT_TRUE(Between("PROCMGR : SendSignal", ":").empty());
}

TEST_F(SupervisionTest, ANormalEndIsNoFault) {
    StartReaper();
    for (const char* policy : {"no", "on-forever"}) {
        const std::string name = std::string("svc-") + policy;
        ManifestData data = Restartable(name, policy);
        data.reporting = true;
        const pid_t pid = Start(data);
        Report(name, BaseServiceStateType::TERMINATING);
        Kill(pid);
        Check();
        EXPECT_THAT(Reported(name), ElementsAre("0", "3"));
    }
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_EQ(services_.GetState("svc-no"), std::nullopt);
    EXPECT_EQ(pipes_.GetServiceFd("svc-no"), -1) << "what leaves the list gives up its pipe";
    EXPECT_EQ(FakeHeartBeat::Get().Watched("svc-no"), std::nullopt);
    // One that is to run for ever is started again by the next cycle.
    EXPECT_EQ(services_.GetState("svc-on-forever"), TERMINATED);
    Check();
    EXPECT_EQ(services_.GetState("svc-on-forever"), STARTING);
}

TEST_F(SupervisionTest, AnInputOutputErrorIsTheReportsResult) {
    StartReaper();
    Start(Restartable("svc", "no", "exit 125"));
    ASSERT_TRUE(WaitForExitOf("svc"));
    Check();
    const auto sent = FakeMuxa::Get().Delivered();
    ASSERT_FALSE(sent.empty());
    const std::string text(sent.back().data.begin(), sent.back().data.end());
    EXPECT_NE(text.find("#0#4#1#"), std::string::npos) << "gid, report, result";
}

TEST_F(SupervisionTest, AnExtraPassIsForThoseThatHadLived) {
    StartReaper();
    const pid_t old = Start(Restartable("old", "on-forever"));
    Check();
    std::this_thread::sleep_for(CHECK_PERIOD * 3 / 2);
    Start(Restartable("young", "on-forever", "exit 1"));
    ASSERT_TRUE(WaitForExitOf("young"));
    EXPECT_FALSE(checks_.WaitForNow(SteadyTime{})) << "a crash loop keeps to the period";
    Kill(old);
    EXPECT_TRUE(checks_.WaitForNow(SteadyTime{}));
    Check(CheckPass::EXTRA);
    EXPECT_EQ(services_.GetState("old"), STARTING);
    EXPECT_EQ(services_.GetState("young"), STARTING);
    EXPECT_EQ(StartedNames().size(), 3U);
    Check();
    EXPECT_EQ(services_.GetState("old"), RUNNING);
    EXPECT_EQ(StartedNames().size(), 4U);
}

TEST_F(SupervisionTest, NothingIsRestartedOnceTheStopHasBegun) {
    StartReaper();
    StartChecker();
    const pid_t pid = Start(Restartable("svc", "on-forever"));
    ASSERT_TRUE(WaitUntil([&] { return services_.GetState("svc") == RUNNING; }));
    services_.StopAll();
    ASSERT_TRUE(WaitUntil([&] { return Reported("svc") == std::vector<std::string>{"0", "3"}; }));
    EXPECT_EQ(LastPid(), pid);
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(SupervisionTest, AStartThatFailsIsAFault) {
    ManifestData data = Service("svc", STAYS);
    data.bin = "/no/such/program";
    data.nodeType = 0x617;
    App::BaseAppInfo record = Record(data);
    EXPECT_FALSE(services_.Start(record));
    EXPECT_THAT(Events(), ElementsAre("0 0xd0")) << "the node's sensor type asks for no fault flag";
}

}  // namespace
}  // namespace ProcMgr
