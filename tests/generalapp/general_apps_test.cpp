// Requests of owners and their outcomes, with real processes.
#include "generalapp/general_apps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>

#include "app/reaper.h"
#include "resource/core_affinity_mgr.h"
#include "resource/device_worker.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/files.h"
#include "tests/support/wait.h"

namespace ProcMgr {
namespace {

using Fakes::FakeDevice;
using Fakes::LogCapture;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Tests::WaitUntil;
using Tests::WriteFile;

// Keeps reports as "OWNER APP TYPE RESULT" and answers of queries as "OWNER APP=STATUS".
class RecordedReports final : public App::StateReports {
public:
    bool ReportAppState(const std::vector<Message::AppStateInfo>& infos,
                        const std::string& owner) override {
        for (const auto& info : infos) {
            Add(owner + " " + info.appName + " " + std::to_string(info.reportType) + " " +
                std::to_string(info.result));
        }
        return true;
    }
    bool ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                               const std::string& owner) override {
        for (const auto& [name, status] : statusByName) {
            Add(owner + " " + name + "=" + std::to_string(status));
        }
        return true;
    }
    bool ReportAppChanges(const std::vector<Message::AppStateInfo>& infos, const std::string& owner,
                          bool /*isAnswer*/) override {
        return ReportAppState(infos, owner);
    }
    void ReportAppStateToZorn(const App::AppInfo&, uint32_t, uint32_t) override {}
    void Flush() override { MayWait("an owner"); }

    std::vector<std::string> Take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(reports_, {});
    }
    std::ptrdiff_t Count(const std::string& report) const {
        const std::lock_guard lock(mutex_);
        return std::count(reports_.begin(), reports_.end(), report);
    }

private:
    void Add(const std::string& report) {
        const std::lock_guard lock(mutex_);
        reports_.push_back(report);
    }

    mutable std::mutex mutex_;
    std::vector<std::string> reports_;  // guarded by mutex_
};

struct FakeOwners final : OwnerServices {
    std::atomic<bool> isReady{true};
    bool IsReady(const std::string& name) override { return name == PROC_ZORNMGR && isReady; }
    std::vector<std::string> GetOwners() override { return {PROC_ZORNMGR, PROC_VINTOR, "other"}; }
};

std::vector<std::string> DeviceCalls() {
    DeviceWorker().Drain(SteadyTime::max());
    return FakeDevice::Get().Calls();
}

class GeneralAppsTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root may start applications";
        }
        FakeDevice::Get().Reset();
        faults_.RegisterNodes();
        Load(
            "  - {name: a, bin: /bin/sleep, args: ['60']}\n"
            "  - {name: b, bin: /bin/sleep, args: ['60']}\n"
            "  - {name: stubborn, bin: /bin/sh, args: [" +
            Script("stubborn",
                   "trap '' TERM; touch " + directory_ / "up" + "; while :; do sleep 1; done") +
            "], term_timeout: 100}\n"
            "  - {name: fails, bin: /bin/sh, args: [" +
            Script("fails", "exit 125") +
            "]}\n"
            "  - {name: absent, bin: /no/such/program}\n"
            "  - {name: dynamic, dynamic: true, bin: 'match(/bin/s[a-z]+)', args: "
            "['match(.*)']}\n");
        LogCapture::Clear();
        reaper_ = std::jthread([this](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                collector_.CollectExits();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    void TearDown() override {
        reaper_ = {};
        for (const auto& state : apps_.GetStates()) {
            kill(static_cast<pid_t>(state.pid), SIGKILL);
            waitpid(static_cast<pid_t>(state.pid), nullptr, 0);
        }
        faults_.UnregisterAll();
    }

    std::string Script(const std::string& name, const std::string& text) const {
        WriteFile(directory_ / name, text + "\n");
        return directory_ / name;
    }
    uint32_t Load(const std::string& entries, const StartupConfig::MatchData& matchData = {},
                  mode_t mode = 0644) {
        WriteFile(directory_ / "apps.yaml", "applications:\n" + entries, mode);
        return config_.LoadStartCfgInfo(directory_ / "apps.yaml", matchData);
    }
    void Check() {
        checks_.Begin(CheckPass::PERIODIC);
        apps_.CheckGeneralApps(CheckPass::PERIODIC);
        apps_.RemoveTerminatedApps();
    }
    bool CheckUntil(const std::string& report) {
        return WaitUntil([&] {
            Check();
            return reports_.Count(report) > 0;
        });
    }
    bool IsUp() const {
        return WaitUntil([&] { return std::filesystem::exists(directory_ / "up"); });
    }
    pid_t PidOf(const std::string& name) {
        for (const auto& state : apps_.GetStates()) {
            if (state.appName == name) {
                return static_cast<pid_t>(state.pid);
            }
        }
        return -1;
    }
    void Start(const std::string& name) {
        apps_.StartApp({{name, {}, {}}}, "vintor");
        ASSERT_TRUE(CheckUntil("vintor " + name + " 0 0"));
        reports_.Take();
    }

    const Tests::TempDirectory directory_;
    App::ProcessLauncher launcher_{CgroupMgr::GetInstance(), CoreAffinityMgr::GetInstance(),
                                   BindCount::GetInstance()};
    CheckRequests checks_;
    RecordedReports reports_;
    App::SensorNodeEventReporter& faults_ = App::SensorNodeEventReporter::GetInstance();
    StartupConfig config_;
    FakeOwners owners_;
    GeneralApps apps_{launcher_, checks_, reports_, faults_, config_, owners_};
    Reaper collector_{
        {[this](int32_t pid, int32_t status) { return apps_.SetExitStatus(pid, status); }}, [] {}};
    std::jthread reaper_;
};

TEST_F(GeneralAppsTest, AStartIsReportedOnceItRunsAndItsEndToo) {
    apps_.StartApp({{"a", {}, {}}}, "vintor");
    EXPECT_THAT(reports_.Take(), IsEmpty());
    Check();
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr a 0 0", "vintor a 0 0"));
    EXPECT_TRUE(LogCapture::ContainsPart(
        LOG_INFO, "][PM] Start generalApp success appName=a, child_pid=" +
                      std::to_string(PidOf("a")) + ", isDelayCoreAffinity_=0"));
    apps_.StartApp({{"a", {}, {}}}, "other");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr a 0 0", "other a 0 0"))
        << "it runs already: the requester gets an answer";
    EXPECT_EQ(apps_.GetStates().size(), 1U);
    kill(PidOf("a"), SIGKILL);
    ASSERT_TRUE(CheckUntil("vintor a 4 0"));
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr a 4 0", "vintor a 4 0"));
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
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr a 5 0", "vintor a 5 0")) << "still starting";
    apps_.StartApp({{"absent", {}, {}}, {"b", {}, {}}, {"fails", {}, {}}}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr absent 4 0", "vintor absent 4 0"));
    EXPECT_EQ(apps_.GetStates().size(), 3U);
    ASSERT_TRUE(CheckUntil("vintor fails 4 1")) << "an input/output error";
}

TEST_F(GeneralAppsTest, Termination) {
    apps_.TermGeneralApp({{"ghost"}, {"b"}}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr ghost 3 0", "zornmgr b 3 0",
                                             "vintor ghost 3 0", "vintor b 3 0"));
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR : termApp failed: not find app=ghost"));
    Start("a");
    apps_.TermGeneralApp({{"a"}, {"a"}}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr a 5 0", "vintor a 5 0")) << "the second";
    ASSERT_TRUE(CheckUntil("vintor a 3 0"));
    EXPECT_THAT(apps_.GetStates(), IsEmpty());
}

TEST_F(GeneralAppsTest, Restarts) {
    Start("a");
    const pid_t first = PidOf("a");
    std::string error;
    CoreAffinityMgr::GetInstance().StoreAndSetCoreAffinity(first, first, {0}, error);
    apps_.RestartApp({{"a", {}, {}}, {"b", {}, {}}, {"ghost", {}, {}}}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr ghost 4 0", "vintor ghost 4 0"));
    ASSERT_TRUE(CheckUntil("vintor a 1 0"));
    EXPECT_NE(PidOf("a"), first);
    EXPECT_EQ(kill(first, 0), -1) << "the old process has ended";
    EXPECT_EQ(reports_.Count("vintor a 1 0"), 1);
    const std::string pid = std::to_string(first);
    EXPECT_TRUE(LogCapture::Contains(
        LOG_INFO, "RecycleThreadCoreInfo finished app: a, tid: " + pid + ", pid: " + pid));
    EXPECT_EQ(reports_.Count("vintor b 1 0"), 1) << "an application without a process is started";
    EXPECT_EQ(apps_.GetStates().size(), 2U);
}

TEST_F(GeneralAppsTest, AQuerySeesAStoppedProcess) {
    Start("a");
    const pid_t pid = PidOf("a");
    apps_.QueryAppState({"a", "b", "a"}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("vintor a=0", "vintor b=1"));
    kill(pid, SIGSTOP);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT);
    for (int query = 0; query < 2; ++query) {
        apps_.QueryAppState({"a"}, "vintor");
        EXPECT_THAT(reports_.Take(), ElementsAre("vintor a=2"));
    }
}

TEST_F(GeneralAppsTest, AnExitThatAQueryFindsIsNotLost) {
    reaper_ = {};
    Start("a");
    const pid_t pid = PidOf("a");
    kill(pid, SIGKILL);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    apps_.QueryAppState({"a"}, "vintor");
    reports_.Take();
    collector_.CollectExits();
    EXPECT_FALSE(apps_.SetExitStatus(pid, 0)) << "the pid may belong to another process now";
    Check();
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr a 4 0", "vintor a 4 0"));
}

TEST_F(GeneralAppsTest, ValuesThatDoNotMatchStartNothing) {
    const std::map<int, std::vector<std::string>> good{{0, {"/bin/sleep"}}};
    const std::map<int, std::vector<std::string>> bad{{0, {"/bin/cat"}}};
    apps_.StartApp({{"dynamic", {"60"}, bad}}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr dynamic 4 0", "vintor dynamic 4 0"));
    apps_.StartApp({{"dynamic", {"60; reboot"}, good}}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr dynamic 4 0", "vintor dynamic 4 0"));
    EXPECT_THAT(apps_.GetStates(), IsEmpty());
    apps_.StartApp({{"dynamic", {"60"}, good}}, "vintor");
    ASSERT_TRUE(CheckUntil("vintor dynamic 0 0"));
    reports_.Take();
    apps_.RestartApp({{"dynamic", {"60"}, bad}}, "vintor");
    EXPECT_THAT(reports_.Take(), ElementsAre("zornmgr dynamic 4 0", "vintor dynamic 4 0"))
        << "refused values leave the process alone";
    apps_.TermGeneralApp({{"dynamic"}}, "vintor");
    ASSERT_TRUE(CheckUntil("vintor dynamic 3 0"));
}

TEST_F(GeneralAppsTest, ANewTimeoutCountsForARunningProcess) {
    Start("stubborn");
    ASSERT_TRUE(IsUp());
    Load("  - {name: stubborn, bin: /bin/sh, term_timeout: 0, force_term: false}\n");
    apps_.TermGeneralApp({{"stubborn"}}, "vintor");
    Check();
    EXPECT_THAT(reports_.Take(), Contains("vintor stubborn 2 0"));
}

TEST_F(GeneralAppsTest, ARequesterThatIsNotTheOwnerIsAnsweredInAnyCase) {
    // The digest of the second item's program takes until the first item's process has ended.
    WriteFile(directory_ / "sha256sum",
              "#!/bin/sh\nuntil [ -e " + directory_ / "go" + " ]; do sleep 0.01; done\n", 0755);
    const char* const given = getenv("PATH");
    const std::string path = given != nullptr ? given : "/usr/bin:/bin";
    setenv("PATH", (directory_.Path() + ":" + path).c_str(), 1);
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
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(reports_.Count("other a 0 0"), 1);
    EXPECT_EQ(reports_.Count("zornmgr a 0 0"), 0) << "the report of the exit is the newest one";
}

TEST_F(GeneralAppsTest, ChangesOfPriorityApplicationsAreHeldBackInOrder) {
    owners_.isReady = false;
    Load("  - {name: first, bin: /bin/sleep, args: ['60'], startup_priority: 1}\n");
    for (int start = 0; start < 40; ++start) {
        apps_.StartApp({{"first", {}, {}}}, "vintor");
        ASSERT_TRUE(CheckUntil("vintor first 0 0")) << "the requester gets the report";
        kill(PidOf("first"), SIGKILL);
        ASSERT_TRUE(WaitUntil([&] {
            Check();
            return apps_.GetStates().empty();
        }));
        EXPECT_EQ(reports_.Count("zornmgr first 0 0"), 0);
        reports_.Take();
    }
    EXPECT_TRUE(LogCapture::Contains(
        LOG_WARNING,
        "PROCMGR : more than 64 changes of app=first wait for zornmgr, the oldest is dropped"));
    owners_.isReady = true;
    Check();
    std::vector<std::string> wanted;
    for (int change = 0; change < 64; ++change) {
        wanted.push_back(change % 2 == 0 ? "zornmgr first 0 0" : "zornmgr first 4 0");
    }
    EXPECT_EQ(reports_.Take(), wanted);
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
    // Another spelling of the path names the same file.
    WriteFile(directory_ / "apps.yaml", "applications:\n  - {name: new, bin: /bin/x}\n");
    std::filesystem::create_directory(directory_ / "general");
    const std::string path = directory_ / "general/.././apps.yaml";
    EXPECT_EQ(config_.ReLoadStartCfgInfo(path), StartupConfig::OK);
    EXPECT_FALSE(config_.Find("a")) << "a reload drops the earlier entries of the file";
    WriteFile(directory_ / "apps.yaml", "applications:\n  - {name: [broken\n");
    EXPECT_EQ(config_.ReLoadStartCfgInfo(path), StartupConfig::FILE_UNUSABLE);
    EXPECT_EQ(Load("  - {name: evil, bin: /bin/x}\n", {}, 0666), StartupConfig::FILE_UNUSABLE);
    EXPECT_FALSE(config_.Find("evil"));
    EXPECT_TRUE(config_.Find("new")) << "an unusable file changes nothing";
}

TEST_F(GeneralAppsTest, TheStopEndsAllAndStartsNothing) {
    Start("a");
    Start("stubborn");
    ASSERT_TRUE(IsUp());
    std::jthread checker([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            Check();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    apps_.StopAll();
    apps_.StartApp({{"b", {}, {}}}, "vintor");
    checker = {};
    Check();
    EXPECT_THAT(apps_.GetStates(), IsEmpty());
    EXPECT_EQ(reports_.Count("vintor a 3 0"), 1);
    EXPECT_EQ(reports_.Count("vintor stubborn 3 0"), 1);
    EXPECT_EQ(reports_.Count("vintor b 4 0"), 1);
}

TEST_F(GeneralAppsTest, ARestartUnderWayEndsWithTheStop) {
    Start("a");
    const pid_t pid = PidOf("a");
    apps_.RestartApp({{"a", {}, {}}}, "vintor");
    ASSERT_TRUE(WaitUntil([&] { return kill(pid, 0) != 0; }));
    apps_.StopAll();
    Check();
    EXPECT_THAT(apps_.GetStates(), IsEmpty());
    EXPECT_EQ(reports_.Count("vintor a 3 0"), 1);
}

}  // namespace
}  // namespace ProcMgr
