// Requests, peers, signals and boots as no well-meaning platform makes them.
#include <sys/stat.h>

#include <array>

#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using Wire::PipePath;

constexpr const char* HEARTBEAT_SOCKET = "/run/heartbeat.sock";

class Edges : public E2e {
protected:
    static std::string Hello(const Beacon& beacon, const std::string& args = "stay") {
        return "hello, " + beacon.Path() + ", " + args;
    }
    static std::string Owner(const std::string& name) {
        return Entry(name, "stay", "reporting: true");
    }
};

// How the path of a start-up configuration comes about that must not be used.
struct Configuration {
    const char* name;
    const char* path;  // empty: the command line of a service that is not root's
};

void PrintTo(const Configuration& configuration, std::ostream* out) {
    *out << configuration.name;
}

class ConfigurationTest : public Edges, public testing::WithParamInterface<Configuration> {
protected:
    // The command line of a service of uid 1000 that only root can read: a configuration.
    static std::string Posing() {
        const std::string text = "applications: [{name: evil, bin: " + std::string(SERVICE) +
                                 ", args: [touch, " + In("evil") + ", stay]}]";
        return Entry(
            "posing",
            "pose, '" + text + "', " + In("pid") + ", " + std::string(8192, 'x') + ", stay",
            "uid: 1000, gid: 1000");
    }
};

TEST_P(ConfigurationTest, IsRefusedAndHoldsNothingUp) {
    ASSERT_EQ(mkfifo(In("fifo").c_str(), 0644), 0);
    Boot(Posing() + Owner("vintor") +
         "applications:\n  - {name: good, bin: /bin/sleep, args: [99]}\n");
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(In("pid")); }));
    std::string path = GetParam().path;
    if (path.empty()) {
        path = "/proc/" + ReadFile(In("pid")) + "/cmdline";
    } else if (!std::filesystem::exists(path)) {
        GTEST_SKIP() << "no " << path;
    }
    vintor.Send(6, "1#" + path + "#0#");
    vintor.Send(0, "1#evil#0#0#");
    vintor.Send(0, "1#good#0#0#");
    EXPECT_EQ(vintor.Next(3s * SLOWER), "good 0");
    EXPECT_FALSE(std::filesystem::exists(In("evil")));
    EXPECT_TRUE(harness_.Log().WaitFor("LoadStartCfgInfo failed, path=" + path, 1s * SLOWER));
    const auto errors = harness_.Log().LinesAt(LOG_ERR);
    EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [&](const std::string& line) {
        return line.find(path) != std::string::npos &&
               line.find("LoadStartCfgInfo") == std::string::npos;
    })) << "the reason";
    ExpectPromptStop();
}

INSTANTIATE_TEST_SUITE_P(All, ConfigurationTest,
                         testing::Values(Configuration{"CommandLine", ""},
                                         Configuration{"KernelLog", "/proc/kmsg"},
                                         Configuration{"Fifo", "/run/e2e/fifo"}),
                         [](const auto& cfg) { return std::string(cfg.param.name); });

TEST_F(Edges, APeerOfTheGroupDoesNotHoldAPipe) {
    Boot(Entry(
        "zornmgr",
        "await, " + In("go") + ", attach, zornmgr, " + In("reports") + ", report, running, stay",
        "reporting: true"));
    HelperProcess other(1000, 0, [] {
        ProcMgr::Agent::UniqueFd fd;
        WaitUntil(
            [&] { return (fd = ProcMgr::Agent::ConnectSocket(PipePath("zornmgr"))).IsValid(); });
        pollfd closed{fd.Get(), POLLIN, 0};
        std::array<uint8_t, 16> buffer{};
        const bool isEnded = poll(&closed, 1, 1000 * SLOWER) > 0 &&
                             recv(fd.Get(), buffer.data(), buffer.size(), 0) <= 0;
        return isEnded ? 0 : 1;
    });
    EXPECT_EQ(other.Wait(), 0) << "is to be closed at once";
    HelperProcess silent(1000, 0, [] {
        const auto fd = ProcMgr::Agent::ConnectSocket(PipePath("zornmgr"));
        WriteFile(In("go"), "");
        pause();
        return 0;
    });
    EXPECT_TRUE(harness_.Log().WaitFor("EnableWatchDog flag=1", 3s * SLOWER));
}

TEST_F(Edges, AServiceRunsWithThePrimaryGroupOfItsUser) {
    Boot(Entry("svc", "dump, " + In("dump") + ", stay", "uid: 1000"));
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(In("dump")); }));
    EXPECT_NE(ReadFile(In("dump")).find("\ngid=1000\ngroups=1000 2000 \n"), std::string::npos);
}

TEST_F(Edges, ARequestOfManyEmptyNamesIsLoggedInFewLines) {
    Boot(Owner("vintor") + Owner("zornmgr") +
         "applications:\n  - {name: good, bin: /bin/sleep, args: [99]}\n");
    RawOwner vintor("vintor");
    RawOwner zornmgr("zornmgr");
    ASSERT_TRUE(vintor.Attach() && zornmgr.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));
    harness_.Log().Clear();
    vintor.Send(2, "1999#" + std::string(1999, '#'));
    vintor.Send(0, "1#good#0#0#");
    for (RawOwner* owner : {&vintor, &zornmgr}) {
        std::string report;
        while (!(report = owner->Next()).empty() && report != "good 0") {
        }
        EXPECT_EQ(report, "good 0");
    }
    const auto lines = MaskedLines();
    EXPECT_LE(lines.size(), 60U);
    // The lines about the names, and those about the answers.
    EXPECT_THAT(lines, Contains(HasSubstr(" more lines about a request of vintor are left out")));
    EXPECT_THAT(lines, Contains(HasSubstr("1991 more states are reported to vintor")));
}

TEST_F(Edges, AServiceThatSignalsItsGroupEndsOnlyItself) {
    const Beacon killer(In("killer"));
    const Beacon other(In("other"));
    Boot(Entry("killer", Hello(killer, "skip-if, " + In("first") + ", 1, kill-group, stay"),
               "restart: on-failure") +
         Entry("other", Hello(other), "restart: on-failure"));
    const pid_t first = killer.Next();
    const pid_t second = killer.Next(3s * SLOWER);
    const pid_t bystander = other.Next();
    EXPECT_GT(second, 0) << "is not restarted";
    EXPECT_NE(first, second);
    EXPECT_EQ(getsid(second), second);
    EXPECT_EQ(getsid(bystander), bystander);
    EXPECT_EQ(other.Next(200ms), 0) << "ended, too";
    EXPECT_TRUE(harness_.IsRunning());
}

TEST_F(Edges, AHangUpChangesNothing) {
    Boot(Entry("svc"));
    ASSERT_TRUE(WaitForLine(START_UP_END));
    harness_.Signal(SIGHUP);
    EXPECT_TRUE(harness_.Log().WaitFor("SIGHUP", 3s * SLOWER));
    EXPECT_TRUE(harness_.IsRunning());
}

TEST_F(Edges, ASecondDaemonLeavesTheFirstAlone) {
    Boot(Owner("vintor"));
    const std::string pipe = PipePath("vintor");
    const auto inode = [](const std::string& path) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    };
    ASSERT_TRUE(WaitForLine("waiting for baseApp=vintor"));
    ASSERT_TRUE(WaitUntil([&] { return inode(pipe) != 0 && inode(HEARTBEAT_SOCKET) != 0; }));
    const auto sockets = std::pair(inode(pipe), inode(HEARTBEAT_SOCKET));
    const auto first = harness_.Log().Messages();
    const auto status = harness_.RunAgain({BASE_YAML}, 3s * SLOWER);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 1);
    EXPECT_EQ(std::pair(inode(pipe), inode(HEARTBEAT_SOCKET)), sockets);
    const std::string pid = "runs already, pid=" + std::to_string(first.front().pid);
    const auto lines = harness_.Log().Messages();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const SyslogMessage& line) {
        return line.level == LOG_ERR && line.pid != first.front().pid && line.text.ends_with(pid);
    })) << "names the first";
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    EXPECT_TRUE(harness_.Log().WaitFor("EnableWatchDog flag=1", 3s * SLOWER));
}

TEST_F(Edges, ADependentIsStartedWhenTheSecondProcessReports) {
    constexpr int BOOTS = 20;
    const Beacon dependent(In("dependent"));
    for (int boot = 0; boot < BOOTS && !HasFailure(); ++boot) {
        SCOPED_TRACE(boot);
        harness_.Log().Clear();
        std::filesystem::remove(In("first"));
        Boot(Entry("reporter",
                   "skip-if, " + In("first") + ", 2, exit, 3, attach, reporter, " + In("none") +
                       ", report, running, stay",
                   "reporting: true, restart: on-failure") +
             Entry("zz", Hello(dependent), "depends: [reporter]"));
        EXPECT_TRUE(harness_.Log().WaitFor("EnableWatchDog flag=1", 3s * SLOWER));
        EXPECT_GT(dependent.Next(1s * SLOWER), 0);
        ExpectOrderlyStop();
        harness_.KillAll();
    }
}

}  // namespace
