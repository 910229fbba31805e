#include "main/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "main/proc_mgr_env.h"
#include "tests/main/isolated.h"

namespace ProcMgr {
namespace {

using Log = IsolatedTest;

// An empty /dev with a system logger's socket in it.
int MakeLogSocket() {
    MountTmpfs("/dev");
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
    return fd;
}

// The next datagram; empty when there is none.
std::string Receive(int fd) {
    char buffer[8192];
    const ssize_t length = recv(fd, buffer, sizeof buffer, 0);
    return length < 0 ? std::string() : std::string(buffer, static_cast<size_t>(length));
}

// What syslog sends: priority in the user facility, time, identity, pid, text.
testing::Matcher<std::string> IsSyslogLine(int level, const std::string& text) {
    return testing::MatchesRegex("<" + std::to_string(8 + level) + ">.*PROCMGR\\[" +
                                 std::to_string(getpid()) + "\\]: " + text + ".?");
}

TEST_F(Log, QuickStartLinesGoToTheKernelLogUntilItEnds) {
    const int status = RunIsolated([] {
        const int fd = MakeLogSocket();
        std::ofstream("/dev/kmsg") << "old|";
        ProcMgrEnv& env = ProcMgrEnv::GetInstance();
        env.StorePid();
        OpenLog();
        env.SetQuickStart(true);
        const std::string longText(3000, 'x');
        ProcMgrLog(LOG_ERR, "ProcMgr: %s", "one");
        ProcMgrLog(LOG_DEBUG, "%s", longText.c_str());
        const std::string ident = "PROCMGR[" + std::to_string(getpid()) + "] ";
        EXPECT_EQ(ReadFile("/dev/kmsg"),
                  "old|<3> " + ident + "ProcMgr: one<7> " + ident + longText);
        EXPECT_EQ(Receive(fd), "");

        ProcMgrSysLog(LOG_WARNING, "direct %d", 1);
        EXPECT_THAT(Receive(fd), IsSyslogLine(LOG_WARNING, "direct 1"));

        env.SetQuickStart(false);
        for (const int level : {LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG}) {
            ProcMgrLog(level, "text %d", level);
            EXPECT_THAT(Receive(fd), IsSyslogLine(level, "text " + std::to_string(level)));
        }
        EXPECT_EQ(ReadFile("/dev/kmsg").find("text"), std::string::npos);
        CloseLog();
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Log, ALineWithoutASinkIsDropped) {
    const int status = RunIsolated([] {
        MountTmpfs("/dev");
        OpenLog();
        ProcMgrLog(LOG_ERR, "nobody");
        ProcMgrEnv::GetInstance().SetQuickStart(true);
        EXPECT_EQ(mkdir("/dev/kmsg", 0700), 0);
        ProcMgrLog(LOG_ERR, "nobody");
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Log, ALoggerThatDoesNotReadHoldsNobodyUp) {
    const int status = RunIsolated([] {
        constexpr int LINES = 5000;
        const int fd = MakeLogSocket();
        alarm(30);
        for (int line = 0; line < LINES; ++line) {
            ProcMgrLog(LOG_INFO, "line %d", line);
        }
        int read = 0;
        while (!Receive(fd).empty()) {
            ++read;
        }
        EXPECT_GT(read, 0);
        EXPECT_LT(read, LINES);
        ProcMgrLog(LOG_INFO, "after");
        EXPECT_THAT(Receive(fd), IsSyslogLine(LOG_INFO, "after"));
        EXPECT_THAT(Receive(fd),
                    IsSyslogLine(LOG_WARNING, "PROCMGR: the system logger did not take " +
                                                  std::to_string(LINES - read) + " lines"));
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Log, ALoggerThatIsStartedAnewGetsTheNextLine) {
    const int status = RunIsolated([] {
        const int first = MakeLogSocket();
        ProcMgrLog(LOG_INFO, "one");
        EXPECT_THAT(Receive(first), IsSyslogLine(LOG_INFO, "one"));
        close(first);
        const int second = MakeLogSocket();
        ProcMgrLog(LOG_INFO, "two");
        EXPECT_THAT(Receive(second), IsSyslogLine(LOG_INFO, "two"));
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Log, AChildForkedUnderTheGuardCanLogWhileOthersDo) {
    const int status = RunIsolated([] {
        const int fd = MakeLogSocket();
        OpenLog();
        alarm(30);
        std::atomic<bool> isRunning{true};
        std::thread logger([&] {
            while (isRunning) {
                ProcMgrLog(LOG_INFO, "noise");
            }
        });
        // Apart from who logs: a full socket makes senders wait.
        std::atomic<bool> isDraining{true};
        std::thread drain([&] {
            while (isDraining) {
                Receive(fd);
            }
        });
        for (int i = 0; i < 100; ++i) {
            pid_t child = -1;
            {
                const LogForkGuard guard;
                child = fork();
            }
            if (child == 0) {
                alarm(10);
                ProcMgrLog(LOG_INFO, "child");
                _exit(0);
            }
            int exit = -1;
            waitpid(child, &exit, 0);
            EXPECT_EQ(exit, 0);
        }
        isRunning = false;
        logger.join();
        isDraining = false;
        drain.join();
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ProcMgr
