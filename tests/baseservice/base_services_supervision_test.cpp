// Deaths and restarts of base services.
#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

class SupervisionTest : public BaseFixture {
protected:
    void SetUp() override {
        BaseFixture::SetUp();
        ASSERT_TRUE(pipes_.RegServiceCallBack("zornmgr", 0, 0));
        Supervise();
    }

    // The states of the service that were reported to the access manager, in order.
    static std::vector<std::string> Reported(const std::string& name) {
        return Between("PROCMGR : report " + name + "'s state: ", " to zornmgr successfully");
    }
    // "FAULT EVENT" of each update of the node of the base services, in order.
    static std::vector<std::string> Events() {
        std::vector<std::string> events;
        const std::string update = "halSensorNodeUpdateState 0 1 ";
        for (const std::string& call : DeviceCalls()) {
            if (call.starts_with(update)) {
                events.push_back(call.substr(update.size()));
            }
        }
        return events;
    }
};

TEST_F(SupervisionTest, ADeathIsReportedAndTheServiceRestarted) {
    ManifestData data = Service("svc", STAYS, "on-forever");
    data.gid = 77;
    const pid_t first = Start(data);
    Check();
    KillAndWait("svc");
    LogCapture::Clear();
    Check();
    EXPECT_NE(PidOf("svc"), first);
    std::vector<std::string> lines = MaskedLines();
    // The worker thread of the device logs at any time.
    std::erase_if(lines, [](const std::string& line) { return line.find("SensorNode") == 2; });
    EXPECT_THAT(Events(), ElementsAre("0 0xd0", "0 0x0"));
    const std::string head = "PROCMGR: CheckThread : owner=svc, pid=PID, state=";
    const std::string report = "6 STAMP PM report appState to zornmgr, appState=";
    EXPECT_THAT(lines,
                ElementsAre("6 PROCMGR : RUNNING to TERMINATED appName=svc, pid=PID",
                            testing::StartsWith("4 PROCMGR : Process=svc, pid=PID"),
                            "4 " + head + "TERMINATED unexpectedly terminated.",
                            report + "TERMINATED_ABNORMAL_EXIT, appName=svc, pid=PID",
                            "6 PROCMGR : report svc's state: 4 to zornmgr successfully",
                            "6 " + head + "TERMINATED will restart now",
                            "6 PROCMGR : Restarting process svc",
                            "6 STAMP Start baseApp success appName=svc, binPath=/bin/sh, pid=PID, "
                            "isDelayCoreAffinity_=0",
                            report + "RUNNING_NORMAL_START, appName=svc, pid=PID",
                            "6 PROCMGR : report svc's state: 0 to zornmgr successfully",
                            testing::StartsWith("6 ********* PROCMGR : RegServiceCallBack success"),
                            "6 " + head + "STARTING restart success"));
    EXPECT_EQ(FakeMuxa::Get().Opens().back().attributes.value, 77U);
    EXPECT_EQ(services_.GetState("svc"), STARTING);
    Check();
    EXPECT_EQ(services_.GetState("svc"), RUNNING);
}

TEST_F(SupervisionTest, AReportingServiceGetsANewPipeAndHeartbeatWatch) {
    const pid_t first = Start(Service("svc", STAYS, "on-failure", {}, true));
    const int pipe = pipes_.GetServiceFd("svc");
    ReportRunning("svc");
    EXPECT_EQ(FakeHeartBeat::Get().Notify("svc", 1), 1);
    EXPECT_THAT(Events(), ElementsAre("0 0x27"));

    KillAndWait("svc");
    Check();
    EXPECT_THAT(FakeMuxa::Get().Closes(), Contains(pipe));
    EXPECT_GT(pipes_.GetServiceFd("svc"), 0);
    EXPECT_EQ(FakeHeartBeat::Get().Watched("svc"), PidOf("svc"));
    EXPECT_EQ(services_.HeartBeatNotify("svc", 3, first, 1), 1);
    EXPECT_THAT(Events(), ElementsAre("0 0x27", "0 0xd0")) << "the end of the watch ends its fault";
    Check();
    EXPECT_EQ(services_.GetState("svc"), STARTING) << "before its report";
    ReportRunning("svc");
    EXPECT_THAT(Events(), ElementsAre("0 0x27", "0 0xd0", "0 0x0"));
    EXPECT_EQ(FakeHeartBeat::Get().Notify("svc", 0), 1);
    EXPECT_EQ(Events().size(), 3U) << "there was no fault to withdraw";
    EXPECT_THAT(Reported("svc"), ElementsAre("0", "4", "0"));
}

TEST_F(SupervisionTest, ARestartThatFailsIsTriedInEachCycleUpToTheLimit) {
    ManifestData data = Service("svc", "", "on-failure");
    data.bin = directory_ / "program";
    data.args = {"60"};
    data.nodeType = 0x617;
    App::BaseAppInfo absent = Record(data);
    EXPECT_FALSE(services_.Start(absent));
    std::filesystem::copy_file("/bin/sleep", data.bin);
    Start(data);
    Check();
    std::filesystem::remove(data.bin);
    KillAndWait("svc");
    LogCapture::Clear();
    for (size_t cycle = 1; cycle <= 5; ++cycle) {
        Check();
        EXPECT_EQ(services_.GetState("svc"), TERMINATED);
        EXPECT_EQ(LogCapture::Count(LOG_ERR, "PROCMGR : Restarting process : svc failed "), cycle);
    }
    Check();
    EXPECT_EQ(services_.GetState("svc"), std::nullopt);
    EXPECT_THAT(Reported("svc"), ElementsAre("4", "4", "4", "4", "4", "4"));
    // The failed start and the death; the sensor type of the node has no fault flag.
    EXPECT_THAT(Events(), ElementsAre("0 0xd0", "0 0x0", "0 0xd0")) << "each only once";
    EXPECT_THAT(Between("PROCMGR : SendSignal", ":"), IsEmpty());
}

TEST_F(SupervisionTest, ANormalEndIsNoFault) {
    for (const std::string policy : {"no", "on-forever"}) {
        const std::string name = "svc-" + policy;
        Start(Service(name, STAYS, policy, {}, true));
        services_.UpdateBaseAppState(name, TERMINATING);
        KillAndWait(name);
        Check();
        EXPECT_THAT(Reported(name), ElementsAre("0", "3"));
    }
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_EQ(services_.GetState("svc-no"), std::nullopt);
    EXPECT_EQ(pipes_.GetServiceFd("svc-no"), -1) << "a removed record has no pipe";
    EXPECT_EQ(FakeHeartBeat::Get().Watched("svc-no"), std::nullopt);
    Start(Service("svc-no", STAYS));
    KillAndWait("svc-no");
    EXPECT_EQ(services_.GetState("svc-no"), STARTING) << "the record of the second start";
    EXPECT_EQ(services_.GetState("svc-on-forever"), TERMINATED);
    Check();
    EXPECT_EQ(services_.GetState("svc-on-forever"), STARTING);
}

TEST_F(SupervisionTest, AnExtraPassHandlesEachServiceThatLivedForAPeriod) {
    Start(Service("one", STAYS, "on-forever"));
    Start(Service("two", STAYS, "on-forever"));
    Check();
    Start(Service("young", STAYS, "on-forever"));
    const auto setStart = [this](const std::set<std::string>& names, SteadyTime start) {
        services_.Visit(App::RecordVisitor::ForAll([&](App::AppInfo& app) {
            app.startTime_ = names.contains(app.appName_) ? start : app.startTime_;
            return false;
        }));
    };
    const SteadyTime now = std::chrono::steady_clock::now();
    setStart({"one", "two"}, now - CHECK_PERIOD * 2);
    setStart({"young"}, now + std::chrono::hours(1));
    KillAndWait("young");
    EXPECT_FALSE(checks_.WaitForNow(SteadyTime{})) << "a crash loop restarts once per period";
    KillAndWait("two");
    KillAndWait("one");
    // The pass is requested after the exit has been logged, without the lock.
    EXPECT_TRUE(checks_.WaitForNow(std::chrono::steady_clock::now() + std::chrono::seconds(10)));
    setStart({"young"}, std::chrono::steady_clock::now());
    Check(CheckPass::EXTRA);
    EXPECT_THAT(Between("PROCMGR: CheckThread : owner=", ","),
                ElementsAre("one", "one", "two", "two", "one", "two"))
        << "each died and will restart; when both run, their pipes are opened";
    EXPECT_EQ(StartedNames().size(), 5U);
    Check();
    EXPECT_EQ(services_.GetState("one"), RUNNING);
    EXPECT_EQ(StartedNames().size(), 6U);
}

TEST_F(SupervisionTest, NothingIsStartedAfterTheStopHasBegun) {
    Start(Service("svc", STAYS, "on-forever"));
    Start(Service("died", "exit 125", "on-forever"));
    ASSERT_TRUE(WaitForExitOf("died"));
    services_.StopAll();
    App::BaseAppInfo late = Record(Service("late", STAYS));
    EXPECT_FALSE(services_.Start(late));
    Check();
    Check();
    EXPECT_THAT(Reported("svc"), ElementsAre("0", "3"));
    EXPECT_THAT(Reported("died"), ElementsAre("0", "4"));
    const auto last = FakeMuxa::Get().Delivered().back().data;
    EXPECT_THAT(std::string(last.begin(), last.end()), HasSubstr("#0#4#1#"))
        << "gid, report, result: an input/output error";
    EXPECT_EQ(StartedNames().size(), 2U);
    EXPECT_THAT(Events(), ElementsAre("0 0xd0")) << "one fault, however often it is raised";
}

}  // namespace
}  // namespace ProcMgr
