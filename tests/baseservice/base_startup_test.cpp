#include "baseservice/base_startup.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <future>

#include "tests/baseservice/base_fixture.h"
#include "tests/main/isolated.h"

namespace ProcMgr {
namespace {

using Fakes::FakeHeartBeat;
using Fakes::FakeMuxa;
using Fakes::LogCapture;
using Fakes::LogLine;

class BaseStartupTest : public BaseFixture {
protected:
    void TearDown() override {
        isStopping_ = true;
        reportedState_.Notify();
        if (startupEnd_.valid()) {
            startupEnd_.wait();
        }
        BaseFixture::TearDown();
    }

    // One entry of a YAML list of services; `more` are further keys.
    static std::string Entry(const std::string& name, const std::string& more = "",
                             const std::string& script = STAYS) {
        return "  - {name: " + name + ", bin: /bin/sh, args: [-c, '" + script + "']" +
               (more.empty() ? "" : ", " + more) + "}\n";
    }
    void Init(const std::string& entries) {
        startup_.InitBaseApplication(WriteYaml("services:\n" + entries));
    }
    // Runs start-up on a thread of its own, as it may have to wait.
    void InitInBackground(const std::string& entries) {
        startupEnd_ = std::async(std::launch::async, [this, entries] { Init(entries); });
    }
    bool HasEnded() { return startupEnd_.wait_for(PATIENCE) == std::future_status::ready; }
    static bool WaitForTheWait(const std::string& name) {
        return LogCapture::WaitFor(
            LOG_INFO,
            "PROCMGR: waiting for baseApp=" + name + " reported state, RUNNING OR TERMINATING.",
            PATIENCE);
    }

    std::future<void> startupEnd_;
};

TEST_F(BaseStartupTest, StartsInDependencyOrderByName) {
    const std::string yaml = Entry("c", "depends: [a]") + Entry("b") + Entry("a");
    Init(yaml);
    std::vector<LogLine> expected{
        {LOG_INFO, "STAMP InitBaseApplication begin, yaml path=" + directory_ + "/base.yaml"}};
    for (const std::string name : {"a", "b", "c"}) {
        if (name == "c") {
            expected.push_back({LOG_INFO, "PROCMGR : c depends on a [c => a]"});
            expected.push_back({LOG_INFO, "PROCMGR : c's dependcy a has been started"});
        }
        expected.push_back({LOG_INFO, "STAMP Start baseApp success appName=" + name +
                                          ", binPath=/bin/sh, pid=PID, isDelayCoreAffinity_=0"});
        expected.push_back(
            {LOG_ERR, "PROCMGR : Master ReportAppState failed: invalid fd, owner=zornmgr"});
        expected.push_back({LOG_ERR, "PROCMGR : report " + name + "'s state: 0 to zornmgr failed"});
    }
    expected.push_back({LOG_INFO, "STAMP InitBaseApplication end"});
    expected.push_back({LOG_DEBUG, "PROCMGR : EnableWatchDog flag=1"});
    EXPECT_EQ(MaskedLines(), expected);
    EXPECT_TRUE(FakeMuxa::Get().Opens().empty()) << "only services that report have a pipe";
    EXPECT_TRUE(FakeHeartBeat::Get().Registrations().empty());
}

TEST_F(BaseStartupTest, AServiceThatCannotStartDoesNotStopTheOthers) {
    StartReaper();
    Init(Entry("lone", "depends: [ghost]") + Entry("behind", "depends: [lone]") + Entry("ok"));
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"ok"});
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : lone 's dependcy ghost hasn't been started"))
        << "nothing had been started by then";
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : behind 's dependcy lone not find,"));
    for (const char* name : {"lone", "behind"}) {
        EXPECT_TRUE(HasLine(LOG_ERR, "process-manager cur time:STAMP, start baseApp=" +
                                         std::string(name) + " failed"));
    }
    EXPECT_TRUE(HasLine(LOG_INFO, "STAMP InitBaseApplication end"));
    EXPECT_TRUE(HasLine(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=0"));
}

TEST_F(BaseStartupTest, AServiceThatRunsIsNotStartedAgain) {
    App::BaseAppInfo record = Record(Service("svc", STAYS));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_TRUE(startup_.InitOneBaseApplication(record));
    EXPECT_EQ(StartedNames().size(), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_WARNING, "PROCMGR=svc is already running"), 1U);
}

TEST_F(BaseStartupTest, AnUnusableFileStartsNothing) {
    const std::string broken[] = {"services: [", "services:\n" + Entry("a") + "  - {name: b}\n",
                                  "services:\n" + Entry("a") + Entry("a")};
    for (const std::string& text : broken) {
        LogCapture::Clear();
        startup_.InitBaseApplication(WriteYaml(text));
        EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : ParseYamlFile failed, ProcMgr return"));
        EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "InitBaseApplication end"));
        EXPECT_FALSE(LogCapture::ContainsPart(LOG_DEBUG, "EnableWatchDog"));
        EXPECT_TRUE(StartedNames().empty());
    }
}

TEST_F(BaseStartupTest, ACycleEndsStartUpWithItsNames) {
    Init(Entry("free") + Entry("ring1", "depends: [ring2]") + Entry("ring2", "depends: [ring1]") +
         Entry("behind", "depends: [ring1]"));
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"free"});
    size_t naming = 0;
    for (const auto& [level, text] : LogCapture::Lines()) {
        const bool namesAll = text.find("ring1") != std::string::npos &&
                              text.find("ring2") != std::string::npos &&
                              text.find("behind") != std::string::npos;
        naming += level == LOG_ERR && namesAll ? 1 : 0;
    }
    EXPECT_EQ(naming, 1U);
    EXPECT_TRUE(HasLine(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=0"));
}

TEST_F(BaseStartupTest, AVertexWithoutAManifestAbandonsStartUp) {
    // Its name comes from a file whose manifests the start does not get.
    std::vector<ApplicationManifest> elsewhere;
    ASSERT_TRUE(startup_.ParseYamlFile(WriteYaml("services:\n" + Entry("missing")), elsewhere));
    ASSERT_EQ(elsewhere.size(), 1U);
    Init(Entry("a") + Entry("z") + Entry("later", "depends: [a]"));
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"a"});
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : can't find missing"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "InitBaseApplication end"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_DEBUG, "EnableWatchDog"));
}

TEST_F(BaseStartupTest, WaitsForWhatTheServiceReports) {
    StartReaper();
    StartChecker();
    const auto lineOf = [](const std::string& name, const std::string& end) {
        return "STAMP InitBaseApp:" + name + " " + end;
    };
    InitInBackground(Entry("a", "reporting: true, gid: 7") + Entry("b", "reporting: true") +
                     Entry("c", "reporting: true") + Entry("d"));
    ASSERT_TRUE(WaitForTheWait("a"));
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"a"}) << "what follows waits";
    Report("a", BaseServiceStateType::RUNNING);

    ASSERT_TRUE(WaitForTheWait("b"));
    EXPECT_TRUE(HasLine(LOG_INFO, lineOf("a", "success, report RUNNING!")));
    Report("b", BaseServiceStateType::TERMINATING);

    ASSERT_TRUE(WaitForTheWait("c"));
    EXPECT_TRUE(HasLine(LOG_WARNING, lineOf("b", "report TERMINATING!")));
    const auto watched = FakeHeartBeat::Get().Watched("c");
    ASSERT_TRUE(watched);
    kill(*watched, SIGKILL);

    ASSERT_TRUE(HasEnded());
    EXPECT_TRUE(HasLine(LOG_WARNING, lineOf("c", "has been 4!")));
    EXPECT_EQ(StartedNames(), (std::vector<std::string>{"a", "b", "c", "d"}));
    EXPECT_TRUE(HasLine(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=1"));
    const auto opens = FakeMuxa::Get().Opens();
    ASSERT_EQ(opens.size(), 3U);
    EXPECT_EQ(opens[0].attributes.name, "a");
    EXPECT_EQ(opens[0].attributes.value, 7U) << "the record's gid decides who may be the peer";
}

TEST_F(BaseStartupTest, AReportBeforeTheWaitIsNotMissed) {
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN,
                            [this](int32_t) { Report("early", BaseServiceStateType::RUNNING); });
    InitInBackground(Entry("early", "reporting: true"));
    ASSERT_TRUE(HasEnded());
    EXPECT_TRUE(HasLine(LOG_INFO, "STAMP InitBaseApp:early success, report RUNNING!"));
    EXPECT_FALSE(LogCapture::ContainsPart(LOG_INFO, "waiting for baseApp"));
}

TEST_F(BaseStartupTest, AServiceThatIsNoLongerListedIsNotWaitedFor) {
    EXPECT_FALSE(startup_.WaitBaseAppReport("vanished"));
    EXPECT_TRUE(HasLine(LOG_WARNING, "STAMP InitBaseApp:vanished has been 4!"));
}

TEST_F(BaseStartupTest, AStopEndsTheWait) {
    InitInBackground(Entry("a", "reporting: true") + Entry("b"));
    ASSERT_TRUE(WaitForTheWait("a"));
    isStopping_ = true;
    reportedState_.Notify();
    ASSERT_TRUE(HasEnded());
    EXPECT_EQ(StartedNames(), std::vector<std::string>{"a"});
    EXPECT_FALSE(HasLine(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=1"));
}

TEST_F(BaseStartupTest, HeartbeatAndPipeFailures) {
    FakeMuxa::Get().Push(FakeMuxa::Call::OPEN, -13);
    ManifestData data = Service("nopipe", STAYS);
    data.reporting = true;
    App::BaseAppInfo noPipe = Record(data);
    EXPECT_FALSE(startup_.InitOneBaseApplication(noPipe));
    EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : procname=nopipe RegisterService failed"));
    EXPECT_TRUE(FakeHeartBeat::Get().Registrations().empty());

    FakeHeartBeat::Get().PushRegister(5);
    FakeMuxa::Get().SetHook(FakeMuxa::Call::OPEN,
                            [this](int32_t) { Report("nobeat", BaseServiceStateType::RUNNING); });
    data.name = "nobeat";
    App::BaseAppInfo noBeat = Record(data);
    EXPECT_TRUE(startup_.InitOneBaseApplication(noBeat));
    EXPECT_TRUE(HasLine(LOG_INFO, "Register heart beat checker for nobeat."));
    EXPECT_TRUE(HasLine(LOG_ERR, "Register heart beat for nobeat failed. (ret=5)"));
    ASSERT_EQ(FakeHeartBeat::Get().Registrations().size(), 1U);
    EXPECT_EQ(FakeHeartBeat::Get().Registrations()[0].name, "nobeat");
    EXPECT_EQ(FakeHeartBeat::Get().Registrations()[0].pid, noBeat.pid_);
}

// From here on the calling process can start no other.
void ForbidForks() {
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
    };
    struct sock_fprog program = {std::size(code), code};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0), 0);
}

TEST_F(BaseStartupTest, AForkThatFailsIsAFailedStart) {
    const int status = RunIsolated([this] {
        ForbidForks();
        Init(Entry("svc"));
        EXPECT_TRUE(HasLine(LOG_ERR, "PROCMGR : Start baseApp svc failed errno=11"));
        EXPECT_TRUE(HasLine(LOG_ERR, "Start svc failed, state:INITSTATE"));
        EXPECT_TRUE(HasLine(LOG_ERR, "process-manager cur time:STAMP, start baseApp=svc failed"));
        EXPECT_TRUE(HasLine(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=0"));
        EXPECT_EQ(services_.GetState("svc"), std::nullopt);
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ProcMgr
