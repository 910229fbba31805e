// Requests, peers, signals and boots of a hostile or broken platform.
#include <sys/stat.h>

#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using Wire::PipePath;

class Edges : public E2e {
protected:
    static std::string Hello(const Beacon& beacon, const std::string& args = "stay") {
        return "hello, " + beacon.Path() + ", " + args;
    }
};

TEST_F(Edges, ARequestOfManyEmptyNamesIsLoggedInFewLines) {
    Boot(Owner("vintor") + Owner("zornmgr") + "applications:\n" + App("good"));
    RawOwner vintor("vintor");
    RawOwner zornmgr("zornmgr");
    ASSERT_TRUE(vintor.Attach() && zornmgr.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));
    Log().Clear();
    vintor.Send(2, "1999#" + std::string(1999, '#'));
    vintor.Send(0, "1#good#0#0#");
    EXPECT_TRUE(vintor.WaitFor("good 0"));
    EXPECT_TRUE(zornmgr.WaitFor("good 0"));
    EXPECT_TRUE(WaitForLine("1991 more states are reported to vintor"));
    const auto lines = MaskedLines();
    EXPECT_LE(lines.size(), 60U);
    EXPECT_THAT(lines, Contains(HasSubstr(" more lines about a request of vintor are left out")));
}

TEST_F(Edges, AServiceThatSignalsItsGroupEndsOnlyItself) {
    const Beacon killer(In("killer"));
    const Beacon other(In("other"));
    Boot(Entry("killer", Hello(killer, "skip-if, " + In("first") + ", 1, kill-group, stay"),
               "restart: on-failure") +
         Entry("other", Hello(other), "restart: on-failure"));
    const pid_t first = killer.Next();
    const pid_t second = killer.Next();
    const pid_t bystander = other.Next();
    EXPECT_GT(second, 0) << "is not restarted";
    EXPECT_NE(first, second);
    EXPECT_EQ(getsid(second), second);
    EXPECT_EQ(getsid(bystander), bystander) << "has ended, too";
    EXPECT_EQ(Log().Count("Restarting process other"), 0U);
    EXPECT_TRUE(harness_.IsRunning());
}

TEST_F(Edges, ASecondDaemonLeavesTheFirstAlone) {
    Boot(Owner("vintor"));
    const auto sockets = [] {
        std::vector<ino_t> inodes;
        for (const std::string& path : {PipePath("vintor"), std::string(HEARTBEAT_SOCKET)}) {
            struct stat status {};
            inodes.push_back(stat(path.c_str(), &status) == 0 ? status.st_ino : 0);
        }
        return inodes;
    };
    ASSERT_TRUE(WaitForLine("waiting for baseApp=vintor"));
    ASSERT_TRUE(
        WaitUntil([&] { return testing::Value(sockets(), testing::Each(testing::Gt(0U))); }));
    const auto before = sockets();
    const pid_t first = Log().Messages().front().pid;
    const auto status = harness_.RunAgain({BASE_YAML});
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 1);
    EXPECT_EQ(sockets(), before);
    const auto lines = Log().Messages();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const SyslogMessage& line) {
        return line.level == LOG_ERR && line.pid != first &&
               line.text.ends_with("runs already, pid=" + std::to_string(first));
    })) << "the error names the first daemon";
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    EXPECT_TRUE(WaitForLine("EnableWatchDog flag=1"));
}

TEST_F(Edges, ADependentIsStartedWhenTheSecondProcessReports) {
    constexpr int BOOTS = 20;
    const Beacon dependent(In("dependent"));
    for (int boot = 0; boot < BOOTS && !HasFailure(); ++boot) {
        SCOPED_TRACE(boot);
        std::filesystem::remove(In("first"));
        Boot(Entry("reporter",
                   "skip-if, " + In("first") + ", 2, exit, 3, attach, reporter, " + In("none") +
                       ", report, running, stay",
                   "reporting: true, restart: on-failure") +
             Entry("zz", Hello(dependent), "depends: [reporter]"));
        EXPECT_TRUE(WaitForLine("EnableWatchDog flag=1"));
        EXPECT_GT(dependent.Next(), 0);
        ExpectOrderlyStop();
        EndRun();
    }
}

}  // namespace
