// Start-up: the whole log of a small platform, the environment of a service, reporters that die.
#include <algorithm>
#include <set>

#include "tests/e2e/e2e_fixture.h"

namespace {

using testing::Contains;
using testing::HasSubstr;

using StartUp = E2e;

// Whether the thread that sends reports logged the line.
bool IsOfReport(const std::string& line) {
    return line.find("PM report appState to") != std::string::npos ||
           line.find("'s state: 0 to zornmgr") != std::string::npos;
}

// Removes the lines that other threads log at any time.
std::vector<std::string> MainThreadLines(std::vector<std::string> lines) {
    std::erase_if(lines, [](const std::string& line) {
        return IsOfReport(line) || line.find("STARTING to RUNNING") != std::string::npos;
    });
    // Each change of any service wakes the waiting thread, which logs its wait again.
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

std::string Started(const std::string& name) {
    return "6 STAMP Start baseApp success appName=" + name +
           ", binPath=/run/e2e/test_service, pid=PID, isDelayCoreAffinity_=0";
}

// Adds the lines that the main thread logs at the start of a service.
void AddStart(std::vector<std::string>& lines, const std::string& name,
              const std::vector<std::string>& depends) {
    const std::string head = "6 PROCMGR : ";
    for (const std::string& other : depends) {
        lines.push_back(head + name + " depends on " + other + " [" + name + " => " + other + "]");
        lines.push_back(head + name + "'s dependcy " + other + " has been started");
    }
    lines.push_back(Started(name));
}

// The lines of one report of a start.
std::vector<std::string> Reported(const std::string& name) {
    return {"6 STAMP PM report appState to zornmgr, appState=RUNNING_NORMAL_START, appName=" +
                name + ", pid=PID",
            "6 PROCMGR : report " + name + "'s state: 0 to zornmgr successfully"};
}

TEST_F(StartUp, TheWholeLogOfASmallPlatform) {
    Boot(Entry("svc_b", "stay", "depends: [zornmgr]") +
         Entry("svc_c", "stay", "depends: [svc_a, svc_b]") +
         Reporter("zornmgr", "await, " + In("go") + ", ") +
         Entry("svc_a", "stay", "depends: [zornmgr]"));
    ASSERT_TRUE(WaitForLine("waiting for baseApp=zornmgr"));
    WriteFile(In("go"), "");
    ASSERT_TRUE(WaitForLine(START_UP_END));

    // Lines that are too long for this file are joined from several literals.
    // NOLINTBEGIN(bugprone-suspicious-missing-comma)
    std::vector<std::string> expected = {
        "6 ProcMgr: main begin: baseServiceCfgPath: /run/e2e/base.yaml",
        "6 STAMP, PM main begin",
        "3 LoadProcMgrCfg file=/etc/vela/base-plat/process-manager/procmgr_cfg.yaml failed. "
        "errno=2",
        "6 pm UpdateSelinuxEnable success: enable=0",
        "6 key=procmgr not found in cmdline.",
        "6 ProcMgr: cmdline disableWatchDog_=0",
        "6 key=veskmode not found in cmdline.",
        "6 ProcMgr: cmdline veskcoreEnable=0",
        "6 key=reboot_reason not found in cmdline.",
        "4 STAMP PROCMGR: creat anonymous pipe success, read pipe fd=N, write pipe fd=N",
        "4 PROCMGR: IntegrityProtect hash config "
        "file=/etc/vela/base-plat/process-manager/bin_hash.cfg is not exist",
        "6 PROCMGR: InquireHomeEnvVariable finished home env=/home/svc",
        "6 STAMP, init success",
        "6 STAMP InitPriorityApps load priority apps cfg finish",
        "6 STAMP InitPriorityApps start priority apps finish",
        "6 is not quickstart, so not wait for continue signal",
        "6 pm Get board info success slotId_=0",
        "3 PROCMGR: CgroupMgr ReadCfg, access /usr/bin/vela/env.cfg fail, errno=2",
        "6 SensorNodeEventReporter GetDeviceNum success. devNum=1",
        "6 SensorNodeEventReporter RegisterSensorNode for pm_base_service success, "
        "nodeType=0x602, sensorType=0x27, reportIds size=1",
        "6 SensorNodeEventReporter RegisterSensorNode for pm_general_app success, "
        "nodeType=0x603, sensorType=0x27, reportIds size=1",
        "6 STAMP, ContinueProcMgrInit success",
        "6 STAMP InitBaseApplication begin, yaml path=/run/e2e/base.yaml",
        Started("zornmgr"),
        "6 ********* PROCMGR : RegServiceCallBack success fd=1, targetProcName=zornmgr",
        "6 Register heart beat checker for zornmgr.",
        "6 PROCMGR: waiting for baseApp=zornmgr reported state, RUNNING OR TERMINATING.",
        "6 STAMP PM receive BASESERVICE_STATE_REPORT msg from zornmgr report state=RUNNING",
        "6 STAMP InitBaseApp:zornmgr success, report RUNNING!",
    };
    // NOLINTEND(bugprone-suspicious-missing-comma)
    AddStart(expected, "svc_a", {"zornmgr"});
    AddStart(expected, "svc_b", {"zornmgr"});
    AddStart(expected, "svc_c", {"svc_a", "svc_b"});
    expected.push_back("6 STAMP InitBaseApplication end");
    expected.push_back("7 PROCMGR : EnableWatchDog flag=1");
    EXPECT_EQ(MainThreadLines(MaskedLines()), expected);

    std::vector<std::string> reports;
    for (const std::string name : {"svc_a", "svc_b", "svc_c"}) {
        EXPECT_TRUE(WaitForLine("PROCMGR : STARTING to RUNNING appName=" + name));
        EXPECT_TRUE(WaitForLine("report " + name + "'s state: 0 to zornmgr successfully"));
        const auto lines = Reported(name);
        reports.insert(reports.end(), lines.begin(), lines.end());
    }
    auto reported = MaskedLines();
    std::erase_if(reported, [](const std::string& line) { return !IsOfReport(line); });
    EXPECT_EQ(reported, reports);
    EXPECT_EQ(Log().Count("STARTING to RUNNING appName=zornmgr"), 0U);
    EXPECT_TRUE(WaitUntil([] {
        return ReadFile(In("reports")) ==
               "svc_a RUNNING_NORMAL_START\nsvc_b RUNNING_NORMAL_START\n"
               "svc_c RUNNING_NORMAL_START\n";
    })) << ReadFile(In("reports"));
    for (const auto& message : Log().Messages()) {
        EXPECT_EQ(message.ident, "PROCMGR");
        EXPECT_EQ(message.facility, LOG_USER);
        EXPECT_GT(message.pid, 0);
    }
}

TEST_F(StartUp, AServiceGetsItsIdentityAndNothingOfTheDaemon) {
    Boot(Entry("svc", "dump, " + In("dump") + ", 'stay'",
               "uid: 1000, gid: 1000, startup_entry: /entry, env: {A: 'b c', B: ''}") +
         Entry("user", "dump, " + In("user") + ", stay", "uid: 1000"));
    ASSERT_TRUE(WaitForFile("dump") && WaitForFile("user"));
    const std::string dump = "\n" + ReadFile(In("dump"));
    for (const char* line :
         {"uid=1000", "gid=1000", "groups=1000 2000 ", "fds=0 1 2 ", "SigBlk=0000000000000000",
          "SigIgn=0000000000000000", "arg=dump", "arg=stay", "A=b c", "B=", "HOME=/home/svc",
          "IS_RESTART=0", "STARTUP_ENTRY_PATH=/entry"}) {
        EXPECT_THAT(dump, HasSubstr("\n" + std::string(line) + "\n"));
    }
    for (const char* variable : {"LD_PRELOAD=", "OWNER_NAME=", "PROC_PLANE=", "GRP_HB="}) {
        EXPECT_THAT(dump, testing::Not(HasSubstr("\n" + std::string(variable))));
    }
    // Without a configured gid a service has the primary group of its user.
    EXPECT_THAT(ReadFile(In("user")), HasSubstr("\ngid=1000\ngroups=1000 2000 \n"));
}

TEST_F(StartUp, AReporterThatDiesDoesNotHoldUpTheOthers) {
    Boot(Entry("a_dies", "exit, 3", "reporting: true") + Entry("b_next", "touch, " + In("b_next")) +
         Entry("c_leaves", "attach, c_leaves, " + In("none") + ", report, terminating, stay",
               "reporting: true"));
    ASSERT_TRUE(WaitForLine(START_UP_END));
    const auto lines = MaskedLines();
    EXPECT_THAT(lines, Contains("4 STAMP InitBaseApp:a_dies has been 4!"));
    EXPECT_THAT(lines, Contains("4 STAMP InitBaseApp:c_leaves report TERMINATING!"));
    EXPECT_THAT(lines, Contains("4 PROCMGR : Process=a_dies, pid=PID was self terminated, the exit "
                                "status is 3."));
    EXPECT_THAT(lines, Contains("7 PROCMGR : EnableWatchDog flag=1"));
    EXPECT_TRUE(WaitForFile("b_next"));
}

TEST_F(StartUp, EveryExitOfManyServicesIsSeen) {
    std::string entries;
    std::set<std::string> names;
    for (int i = 1000; i < 1200; ++i) {
        names.insert("s" + std::to_string(i));
        entries += "  - {name: s" + std::to_string(i) + ", bin: /bin/true}\n";
    }
    BootWhole(entries);
    const std::string word = "to TERMINATED appName=";
    EXPECT_TRUE(WaitUntil([&] { return Log().Count(word) == names.size(); }));
    for (const std::string& name : names) {
        EXPECT_EQ(Log().Count(word + name), 1U) << name;
    }
    EXPECT_EQ(Log().Count("can not find app"), 0U);
}

}  // namespace
