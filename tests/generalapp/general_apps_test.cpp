// Requests of owners and their outcomes, with real processes.
#include "generalapp/general_apps.h"

#include <algorithm>
#include <atomic>

#include "tests/baseservice/base_fixture.h"

namespace ProcMgr {
namespace {

using Tests::WriteFile;

// Keeps reports as "OWNER APP TYPE RESULT" and answers of queries as "OWNER APP=STATUS".
class RecordedReports final : public App::StateReports {
public:
    bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                        const std::string& owner) override {
        for (const auto& info : infos) {
            reports_.Add(0, owner + " " + info.appName + " " + std::to_string(info.reportType) +
                                " " + std::to_string(info.result));
        }
        return true;
    }
    bool ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                               const std::string& owner) override {
        for (const auto& [name, status] : statusByName) {
            reports_.Add(0, owner + " " + name + "=" + std::to_string(status));
        }
        return true;
    }
    bool ReportAppChanges(const std::vector<Message::AppStateInfo>& infos, const std::string& owner,
                          bool /*isAnswer*/) override {
        return ReportAppState(infos, owner);
    }
    void ReportAppStateToZorn(const App::AppInfo&, uint32_t, uint32_t) override {}
    void Flush() override { MayWait("an owner"); }

    // While no other thread reports.
    std::vector<std::string> Take() {
        std::vector<std::string> taken = reports_.Entries();
        reports_.Reset();
        return taken;
    }
    size_t Count(const std::string& report) const {
        return reports_.CountIf([&](const std::string& other) { return other == report; });
    }

private:
    Fakes::Recorder<int, std::string> reports_;  // one kind of call: the key is 0
};

struct FakeOwners final : OwnerServices {
    std::atomic<bool> isReady{true};
    bool IsReady(const std::string& name) override { return name == PROC_ZORNMGR && isReady; }
    std::vector<std::string> GetOwnersAmong(const std::vector<std::string>& names) override {
        std::vector<std::string> owners{PROC_VINTOR, "other", PROC_CONSOLE};
        std::erase_if(owners, [&](const std::string& owner) {
            return std::find(names.begin(), names.end(), owner) == names.end();
        });
        return owners;
    }
};

class GeneralAppsTest : public BaseFixture {
protected:
    void SetUp() override {
        BaseFixture::SetUp();
        Load(
            "  - {name: a, bin: /bin/sleep, args: ['60']}\n"
            "  - {name: b, bin: /bin/sleep, args: ['60']}\n"
            "  - {name: first, bin: /bin/sleep, args: ['60'], startup_priority: 1}\n"
            "  - {name: stubborn, bin: /bin/sh, args: [" +
            Script("stubborn",
                   "trap '' TERM; touch " + directory_ / "up" + "; while :; do sleep 1; done") +
            "], term_timeout: 100}\n"
            "  - {name: fails, bin: /bin/sh, args: [" +
            Script("fails", "exit 125") +
            "]}\n"
            "  - {name: absent, bin: /no/such/program}\n"
            "  - {name: dynamic, dynamic: true, bin: /bin/sleep, args: ['match([0-9]+)']}\n");
        Supervise();
    }
    bool Visit(const App::RecordVisitor& visitor) override { return apps_.Visit(visitor); }
    bool StoreExit(int32_t pid, int32_t status) override {
        return apps_.SetExitStatus(pid, status);
    }

    std::string Script(const std::string& name, const std::string& text) const {
        WriteFile(directory_ / name, text + "\n");
        return directory_ / name;
    }
    uint32_t Load(const std::string& entries, const StartupConfig::MatchData& matchData = {}) {
        WriteFile(directory_ / "apps.yaml", "applications:\n" + entries);
        return config_.LoadStartCfgInfo(directory_ / "apps.yaml", matchData);
    }
    void Check() {
        checks_.Begin();
        apps_.CheckGeneralApps(CheckPass::PERIODIC);
        apps_.RemoveTerminatedApps(CheckPass::PERIODIC);
        checks_.End();
    }
    bool CheckUntil(const std::string& report) {
        return WaitUntil([&] {
            Check();
            return reported_.Count(report) > 0;
        });
    }
    // After the trap of the application "stubborn".
    bool IsUp() const {
        return WaitUntil([&] { return std::filesystem::exists(directory_ / "up"); });
    }
    void Start(const std::string& name) {
        apps_.StartApp({{name, {}, {}}}, "vintor");
        ASSERT_TRUE(CheckUntil("vintor " + name + " 0 0"));
        reported_.Take();
    }
    // Sends the signal and waits for the change that it makes, which stays to be collected.
    static void Change(pid_t pid, int signal) {
        siginfo_t info{};
        kill(pid, signal);
        waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WEXITED | WNOWAIT);
    }

    RecordedReports reported_;
    StartupConfig config_;
    FakeOwners owners_;
    GeneralApps apps_{launcher_, checks_, reported_, faults_, config_, owners_};
};

TEST_F(GeneralAppsTest, AStartIsReportedOnceItRunsAndItsEndToo) {
    apps_.StartApp({{"a", {}, {}}}, "vintor");
    EXPECT_THAT(reported_.Take(), IsEmpty());
    Check();
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr a 0 0", "vintor a 0 0"));
    EXPECT_TRUE(LogCapture::ContainsPart(
        LOG_INFO, "][PM] Start generalApp success appName=a, child_pid=" +
                      std::to_string(PidOf("a")) + ", isDelayCoreAffinity_=0"));
    apps_.StartApp({{"a", {}, {}}}, "other");
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr a 0 0", "other a 0 0"))
        << "it runs already: the requester gets an answer";
    EXPECT_EQ(apps_.GetStates().size(), 1U);
    kill(PidOf("a"), SIGKILL);
    ASSERT_TRUE(CheckUntil("vintor a 4 0"));
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr a 4 0", "vintor a 4 0"));
    EXPECT_THAT(DeviceCalls(), Contains("halSensorNodeUpdateState 0 2 0 0xd0"));
    EXPECT_THAT(apps_.GetStates(), IsEmpty());
    Start("a");
    EXPECT_EQ(DeviceCalls().back(), "halSensorNodeUpdateState 0 2 0 0x0");
}

TEST_F(GeneralAppsTest, AStartThatIsImpossible) {
    apps_.StartApp({{"a", {}, {}}, {"ghost", {}, {}}, {"b", {}, {}}}, "vintor");
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR : GetGeneralApp failed: app=ghost"));
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR : StartApp: appName=ghost is null"));
    EXPECT_EQ(apps_.GetStates().size(), 1U) << "the items after the unknown name are dropped";
    apps_.StartApp({{"a", {}, {}}}, "vintor");
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr a 5 0", "vintor a 5 0")) << "still starting";
    apps_.StartApp({{"absent", {}, {}}, {"b", {}, {}}, {"fails", {}, {}}}, "vintor");
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr absent 4 0", "vintor absent 4 0"));
    EXPECT_EQ(apps_.GetStates().size(), 3U);
    ASSERT_TRUE(CheckUntil("vintor fails 4 1")) << "an input/output error";
    reported_.Take();
    apps_.StartApp({{"dynamic", {"60; reboot"}, {}}}, "vintor");
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr dynamic 4 0", "vintor dynamic 4 0"));
    EXPECT_EQ(PidOf("dynamic"), -1) << "values that do not match start nothing";
}

TEST_F(GeneralAppsTest, Termination) {
    apps_.TermGeneralApp({{"ghost"}, {"b"}}, "vintor");
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr ghost 3 0", "zornmgr b 3 0",
                                              "vintor ghost 3 0", "vintor b 3 0"));
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR : termApp failed: not find app=ghost"));
    Start("a");
    apps_.TermGeneralApp({{"a"}, {"a"}}, "vintor");
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr a 5 0", "vintor a 5 0")) << "the second";
    ASSERT_TRUE(CheckUntil("vintor a 3 0"));
    EXPECT_THAT(apps_.GetStates(), IsEmpty());
}

TEST_F(GeneralAppsTest, Restarts) {
    Start("a");
    const pid_t first = PidOf("a");
    std::string error;
    CoreAffinityMgr::GetInstance().StoreAndSetCoreAffinity(first, first, {0}, error);
    apps_.RestartApp({{"a", {}, {}}, {"b", {}, {}}, {"ghost", {}, {}}}, "vintor");
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr ghost 4 0", "vintor ghost 4 0"));
    ASSERT_TRUE(CheckUntil("vintor a 1 0"));
    EXPECT_NE(PidOf("a"), first);
    EXPECT_EQ(kill(first, 0), -1) << "the old process has ended";
    EXPECT_EQ(reported_.Count("vintor a 1 0"), 1U);
    const std::string pid = std::to_string(first);
    EXPECT_TRUE(LogCapture::Contains(
        LOG_INFO, "RecycleThreadCoreInfo finished app: a, tid: " + pid + ", pid: " + pid));
    EXPECT_EQ(reported_.Count("vintor b 1 0"), 1U) << "an application without a process is started";
    EXPECT_EQ(apps_.GetStates().size(), 2U);
}

TEST_F(GeneralAppsTest, AQuerySeesAStoppedProcessAndLosesNoExit) {
    Start("a");
    reaper_ = {};
    const pid_t pid = PidOf("a");
    apps_.QueryAppState({"a", "b", "a"}, "vintor");
    EXPECT_THAT(reported_.Take(), ElementsAre("vintor a=0", "vintor b=1"));
    Change(pid, SIGSTOP);
    for (int query = 0; query < 2; ++query) {
        apps_.QueryAppState({"a"}, "vintor");
        EXPECT_THAT(reported_.Take(), ElementsAre("vintor a=2"));
    }
    Change(pid, SIGKILL);
    apps_.QueryAppState({"a"}, "vintor");
    reported_.Take();
    collector_.CollectExits();
    EXPECT_FALSE(apps_.SetExitStatus(pid, 0)) << "the pid may belong to another process now";
    Check();
    EXPECT_THAT(reported_.Take(), ElementsAre("zornmgr a 4 0", "vintor a 4 0"));
}

TEST_F(GeneralAppsTest, ANewTimeoutCountsForARunningProcess) {
    Start("stubborn");
    ASSERT_TRUE(IsUp());
    Load("  - {name: stubborn, bin: /bin/sh, term_timeout: 0, force_term: false}\n");
    apps_.TermGeneralApp({{"stubborn"}}, "vintor");
    Check();
    EXPECT_THAT(reported_.Take(), Contains("vintor stubborn 2 0"));
}

TEST_F(GeneralAppsTest, ARequesterThatIsNotTheOwnerIsAnsweredInAnyCase) {
    // The digest of the second item's program takes until the first item's process has ended.
    WriteFile(directory_ / "sha256sum",
              "#!/bin/sh\nuntil [ -e " + directory_ / "go" + " ]; do sleep 0.01; done\n", 0755);
    setenv("PATH", (directory_.Path() + ":/usr/bin:/bin").c_str(), 1);
    WriteFile(directory_ / "hashes", "cat=" + std::string(64, '0') + "\n");
    launcher_.LoadIntegrityTable(directory_ / "hashes");
    Load("  - {name: slow, bin: /bin/cat}\n");
    Start("a");
    std::thread checker([this, pid = PidOf("a")] {
        LogCapture::WaitForPart(LOG_WARNING, "is already running");
        kill(pid, SIGKILL);
        EXPECT_TRUE(CheckUntil("vintor a 4 0"));
        WriteFile(directory_ / "go", "");
    });
    apps_.StartApp({{"a", {}, {}}, {"slow", {}, {}}}, "other");
    checker.join();
    EXPECT_EQ(reported_.Count("other a 0 0"), 1U);
    EXPECT_EQ(reported_.Count("zornmgr a 0 0"), 0U) << "the report of the exit is the newest one";
}

TEST_F(GeneralAppsTest, TheConsoleIsToldTheOutcomeOfItsRequestsOnly) {
    for (const std::string requester : {"other", PROC_CONSOLE}) {
        const size_t expected = requester == PROC_CONSOLE ? 1 : 0;
        Start("a");
        apps_.RestartApp({{"a", {}, {}}}, requester);
        ASSERT_TRUE(CheckUntil("vintor a 1 0")) << "the owner stays the owner";
        EXPECT_EQ(reported_.Count(requester + " a 1 0"), expected);
        apps_.TermGeneralApp({{"a"}}, requester);
        ASSERT_TRUE(CheckUntil("vintor a 3 0"));
        EXPECT_EQ(reported_.Count(requester + " a 3 0"), expected);
        EXPECT_EQ(reported_.Count("zornmgr a 3 0"), 1U);
        reported_.Take();
    }
    Start("a");
    kill(PidOf("a"), SIGKILL);
    ASSERT_TRUE(CheckUntil("vintor a 4 0"));
    EXPECT_EQ(reported_.Count("pm-console a 4 0"), 0U) << "nobody at the console asked for that";
    apps_.RestartApp({{"first", {}, {}}}, PROC_CONSOLE);
    EXPECT_TRUE(CheckUntil("pm-console first 1 0"));
}

TEST_F(GeneralAppsTest, ChangesOfPriorityApplicationsAreHeldBackInOrder) {
    owners_.isReady = false;
    for (int start = 0; start < 40; ++start) {
        apps_.StartApp({{"first", {}, {}}}, "vintor");
        ASSERT_TRUE(CheckUntil("vintor first 0 0")) << "the requester gets the report";
        kill(PidOf("first"), SIGKILL);
        ASSERT_TRUE(WaitUntil([&] {
            Check();
            return apps_.GetStates().empty();
        }));
        EXPECT_EQ(reported_.Count("zornmgr first 0 0"), 0U);
        reported_.Take();
    }
    EXPECT_THAT(MaskedLines(), Contains("4 PROCMGR : more than 64 changes of app=first wait for "
                                        "zornmgr, the oldest is dropped"));
    owners_.isReady = true;
    Check();
    const std::vector<std::string> changes = reported_.Take();
    ASSERT_EQ(changes.size(), 64U);
    for (size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(changes[i], i % 2 == 0 ? "zornmgr first 0 0" : "zornmgr first 4 0");
    }
}

TEST_F(GeneralAppsTest, ConfigurationFilesComeAndGo) {
    EXPECT_EQ(Load("  - {name: red, bin: /bin/x, match: {color: red}}\n"
                   "  - {name: blue, bin: /bin/x, match: {color: blue}}\n",
                   {{"color", "red"}, {"size", "9"}}),
              StartupConfig::OK);
    EXPECT_TRUE(config_.Find("red"));
    EXPECT_FALSE(config_.Find("blue"));
    EXPECT_TRUE(config_.Find("a")) << "entries of an earlier load stay";
    // The entry of another file replaces this one until that file is reloaded without it.
    const std::string other = directory_ / "other.yaml";
    WriteFile(other, "applications:\n  - {name: a, bin: /bin/other}\n");
    ASSERT_EQ(config_.LoadStartCfgInfo(other), StartupConfig::OK);
    EXPECT_EQ(config_.Find("a")->GetBinPath(), "/bin/other");
    WriteFile(other, "applications: []\n");
    std::filesystem::create_symlink(other, directory_ / "link.yaml");
    ASSERT_EQ(config_.ReLoadStartCfgInfo(directory_ / "./link.yaml"), StartupConfig::OK);
    EXPECT_EQ(config_.Find("a")->GetBinPath(), "/bin/sleep");
    const std::string path = directory_ / "apps.yaml";
    WriteFile(path, "applications:\n  - {name: new, bin: /bin/x}\n");
    EXPECT_EQ(config_.ReLoadStartCfgInfo(path), StartupConfig::OK);
    EXPECT_FALSE(config_.Find("a")) << "a reload drops the earlier entries of the file";
    WriteFile(path, "applications:\n  - {name: [broken\n");
    EXPECT_EQ(config_.ReLoadStartCfgInfo(path), StartupConfig::FILE_UNUSABLE);
    EXPECT_TRUE(config_.Find("new")) << "an unusable file changes nothing";
}

TEST_F(GeneralAppsTest, TheStopEndsAllAndStartsNothing) {
    for (const char* name : {"a", "b", "stubborn"}) {
        Start(name);
    }
    ASSERT_TRUE(IsUp());
    const pid_t pid = PidOf("b");
    apps_.RestartApp({{"b", {}, {}}}, "vintor");
    ASSERT_TRUE(WaitUntil([&] { return kill(pid, 0) != 0; })) << "a restart is under way";
    std::jthread stop([this] { apps_.StopAll(); });
    ASSERT_TRUE(LogCapture::WaitForPart(LOG_INFO, "SendSignal: 15 to app=a"));
    apps_.StartApp({{"fails", {}, {}}}, "vintor");
    EXPECT_TRUE(CheckUntil("vintor stubborn 3 0"));
    stop.join();
    Check();
    EXPECT_THAT(apps_.GetStates(), IsEmpty());
    for (const char* report :
         {"vintor a 3 0", "vintor b 3 0", "vintor stubborn 3 0", "vintor fails 4 0"}) {
        EXPECT_EQ(reported_.Count(report), 1U) << report;
    }
}

}  // namespace
}  // namespace ProcMgr
