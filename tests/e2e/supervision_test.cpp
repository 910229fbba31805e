// Deaths and restarts of services, integrity protection and the choice of services at boot.
#include <fstream>

#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using testing::Contains;
using testing::HasSubstr;

class Supervision : public E2e {
protected:
    // The reports to zornmgr about the service: "RTRT" and so on, for RUNNING... and TERMINATED...
    static std::string ReportsOf(const std::string& name) {
        std::ifstream file(In("reports"));
        std::string reports;
        std::string app;
        for (std::string type; file >> app >> type;) {
            reports += app == name ? type.substr(0, 1) : "";
        }
        return reports;
    }
    // Resident pages of the daemon that it shares with no file or process.
    long PrivatePages() const {
        std::ifstream file("/proc/" + std::to_string(harness_.GetPid()) + "/statm");
        long pages[3]{};  // in total, resident, shared
        file >> pages[0] >> pages[1] >> pages[2];
        return pages[1] - pages[2];
    }
    size_t CountDescriptors() const {
        const std::filesystem::directory_iterator fds("/proc/" + std::to_string(harness_.GetPid()) +
                                                      "/fd");
        return static_cast<size_t>(std::distance(begin(fds), end(fds)));
    }
};

TEST_F(Supervision, EachOfManyDeathsIsReportedOnceAndLeaksNothing) {
    constexpr size_t WARM_UP = 20;
    constexpr size_t REPORTS = 200;
    Boot(Reporter("zornmgr") +
         "  - {name: svc, bin: /bin/sleep, args: [\"0.04\"], restart: on-forever, "
         "depends: [zornmgr]}\n");
    ASSERT_TRUE(WaitUntil([] { return ReportsOf("svc").size() >= WARM_UP; }));
    const size_t descriptors = CountDescriptors();
    const long pages = PrivatePages();
    ASSERT_TRUE(WaitUntil([] { return ReportsOf("svc").size() >= WARM_UP + REPORTS; }));
    const std::string reports = ReportsOf("svc");
    for (size_t i = 0; i < reports.size(); ++i) {
        ASSERT_EQ(reports[i], i % 2 == 0 ? 'R' : 'T') << "report " << i << " of " << reports;
    }
#ifndef PROCMGR_SANITIZED
    EXPECT_LE(PrivatePages(), pages + 64);
#else
    (void)pages;  // a sanitizer keeps freed memory
#endif
    // While the service is being restarted, descriptors of its launch may be open or closed.
    EXPECT_NEAR(static_cast<double>(CountDescriptors()), static_cast<double>(descriptors), 2);
    EXPECT_EQ(Log().Count("can not find app"), 0U);
}

TEST_F(Supervision, AServiceThatKeepsDyingIsGivenUpAndStaysAFault) {
    Boot(Reporter("zornmgr") + Entry("svc", "exit, 3", "restart: on-failure, depends: [zornmgr]") +
         Entry("zz", "stay"));
    ASSERT_TRUE(WaitForLine("PROCMGR : Process svc removed from the list of executedBaseApp_"));
    EXPECT_EQ(Log().Count("Start baseApp success appName=svc"), 6U);
    EXPECT_TRUE(WaitUntil([] { return ReportsOf("svc") == "RTRTRTRTRTRT"; })) << ReportsOf("svc");
    // The thread of the device library makes the last call at any time.
    const auto lastCall = [] {
        const std::string calls = ReadFile(DEVICE_LOG);
        return calls.substr(calls.rfind('\n', calls.size() - 2) + 1);
    };
    WaitUntil([&] { return lastCall().find("event=208") != std::string::npos; });
    EXPECT_THAT(lastCall(), testing::AllOf(HasSubstr("update device=0"), HasSubstr("event=208")));
    ExpectOrderlyStop();
    EXPECT_THAT(ReadFile(DEVICE_LOG), HasSubstr("unregister device=0"));
}

TEST_F(Supervision, AHeartbeatThatStopsIsLost) {
    const Beacon beacon(In("beating"));
    Boot(Entry("svc", "await, " + In("go") + ", beat, svc, hello, " + beacon.Path() + ", stay",
               "reporting: true"));
    ASSERT_TRUE(WaitForLine("Register heart beat checker for svc."));
    WriteFile(In("go"), "");
    const pid_t pid = beacon.Next();
    ASSERT_GT(pid, 1);
    // The process may be stopped before its first heartbeat; then it goes on and is stopped again.
    EXPECT_TRUE(WaitUntil([&] {
        kill(pid, SIGSTOP);
        const bool isLost = Log().WaitFor("status=lost", std::chrono::seconds(5));
        kill(pid, SIGCONT);
        return isLost;
    }));
}

TEST_F(Supervision, AModifiedProgramIsNotStarted) {
    BindFile("test_service=" + std::string(64, '0') + "\n", HASH_FILE);
    BootWhole(Entry("svc", "touch, " + In("svc")) + App("other"));
    EXPECT_THAT(MaskedLines(), Contains("3 PROCMGR : IntegrityProtect app=/run/e2e/test_service or "
                                        "sha256sum has been modified"));
    EXPECT_FALSE(Exists("svc"));
    EXPECT_EQ(Log().Count("Start baseApp success appName=other"), 1U);
}

TEST_F(Supervision, TheBootCommandLineChoosesWhatIsStarted) {
    WriteFile(In("debug/shell.yaml"), "services:\n" + Entry("shell"));
    WriteFile(In("trace.yaml"), "services:\n" + Entry("tracer"));
    WriteFile(In("other.yaml"),
              "include: [debug/shell.yaml, trace.yaml]\nservices:\n" + Entry("other"));
    DaemonHarness::SetCommandLine("quiet procmgr=boot:" + In("other.yaml") + ",debug,diag ro");
    BootWhole(Entry("unused"));
    const auto lines = MaskedLines();
    EXPECT_THAT(lines, Contains("6 ProcMgr: update pm startup yaml from cmdline, new path: " +
                                In("other.yaml")));
    EXPECT_THAT(lines, Contains("6 diag need enable, but not rightly configured"));
    for (const auto& [name, count] :
         {std::pair{"other", 1U}, {"shell", 1U}, {"tracer", 0U}, {"unused", 0U}}) {
        EXPECT_EQ(Log().Count(std::string("Start baseApp success appName=") + name), count) << name;
    }
}

}  // namespace
