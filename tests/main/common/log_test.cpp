#include "main/common/log.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <thread>

#include "main/common/daemon_signals.h"
#include "main/common/log_ring.h"
#include "main/common/proc_mgr_env.h"
#include "tests/support/files.h"
#include "tests/support/isolated.h"
#include "tests/support/raw_peer.h"
#include "tests/support/wait.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Log = IsolatedTest;

// An empty /dev with a system logger's socket in it.
int MakeLogSocket(int type = SOCK_DGRAM) {
    MountTmpfs("/dev");
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = Tests::SocketAddress("/dev/log");
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    if (type == SOCK_STREAM) {
        EXPECT_EQ(listen(fd, 4), 0);
    }
    return fd;
}

// The next datagram; empty when none comes within `patience`.
std::string Next(int fd, std::chrono::milliseconds patience = Tests::PATIENCE) {
    char buffer[8192];
    const ssize_t length = Tests::IsReadable(fd, patience) ? recv(fd, buffer, sizeof buffer, 0) : 0;
    return {buffer, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

// A line of syslog(): priority in the user facility, time, identity, pid, text.
testing::Matcher<std::string> IsSyslogLine(int level, const std::string& text) {
    return testing::MatchesRegex("<" + std::to_string(8 + level) + ">.*PROCMGR\\[" +
                                 std::to_string(getpid()) + "\\]: " + text + ".?");
}

TEST_F(Log, QuickStartLinesGoToTheKernelLogUntilItEnds) {
    Isolated([] {
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
        const std::string lines = "old|<3> " + ident + "ProcMgr: one<7> " + ident + longText;
        EXPECT_TRUE(Tests::WaitUntil([&] { return ReadFile("/dev/kmsg") == lines; }));
        EXPECT_EQ(Next(fd, 0ms), "");

        ProcMgrSysLog(LOG_WARNING, "direct %d", 1);
        EXPECT_THAT(Next(fd), IsSyslogLine(LOG_WARNING, "direct 1"));

        env.SetQuickStart(false);
        for (const int level : {LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG}) {
            ProcMgrLog(level, "text %d", level);
            EXPECT_THAT(Next(fd), IsSyslogLine(level, "text " + std::to_string(level)));
        }
        CloseLog();
        EXPECT_EQ(ReadFile("/dev/kmsg").find("text"), std::string::npos);
    });
}

TEST_F(Log, ALoggerThatDoesNotReadDelaysNoThreadAndTheLinesWithoutRoomAreCounted) {
    Isolated([] {
        constexpr int LINES = 20000;
        const int fd = MakeLogSocket();
        alarm(60);
        const auto begin = std::chrono::steady_clock::now();
        for (int line = 0; line < LINES; ++line) {
            ProcMgrLog(LOG_INFO, "line %100d", line);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
        int read = 0;
        int counted = 0;
        const std::string count = "PROCMGR: the system logger did not take ";
        while (read + counted < LINES) {
            const std::string line = Next(fd);
            const size_t at = line.find(count);
            if (at == std::string::npos) {
                ++read;
            } else {
                counted += std::stoi(line.substr(at + count.size()));
            }
        }
        EXPECT_GT(read, 5000) << "a ring full";
        EXPECT_GT(counted, 0);
        EXPECT_EQ(read + counted, LINES);
    });
}

TEST_F(Log, LinesOfServicesLeaveRoomForThoseOfTheDaemon) {
    Isolated([] {
        const int fd = MakeLogSocket();
        EXPECT_TRUE(LogServiceLine("svc", 42, "text %s"));
        EXPECT_THAT(Next(fd), testing::MatchesRegex("<30>... .. ..:..:.. svc\\[42\\]: text %s.?"));
        const std::string longText(1000, 'x');
        int taken = 0;
        while (taken < 20000 && LogServiceLine("svc", 42, longText)) {
            ++taken;
        }
        EXPECT_LT(taken, 20000);
        ProcMgrLog(LOG_INFO, "of the daemon");
        int read = 0;
        std::string line;
        for (line = Next(fd); line.find("of the daemon") == std::string::npos; line = Next(fd)) {
            ASSERT_THAT(line, testing::HasSubstr("svc[42]: " + longText)) << read;
            ++read;
        }
        EXPECT_EQ(read, taken);
        EXPECT_THAT(Next(fd), testing::HasSubstr("the system logger did not take 1 lines"));
    });
}

TEST_F(Log, EarlyLinesWaitForTheLoggerAndForItsSuccessor) {
    Isolated([] {
        MountTmpfs("/dev");
        OpenLog();
        ProcMgrLog(LOG_ERR, "early");
        // The thread asks again after 0.1, 0.5 and 2.1 seconds.
        std::this_thread::sleep_for(800ms);
        EXPECT_TRUE(IsLoggerMissing());
        const int first = MakeLogSocket();
        LookForLogger();
        EXPECT_FALSE(IsLoggerMissing());
        EXPECT_THAT(Next(first, 400ms), IsSyslogLine(LOG_ERR, "early"));
        close(first);
        const int second = MakeLogSocket();
        ProcMgrLog(LOG_INFO, "two");
        EXPECT_THAT(Next(second), IsSyslogLine(LOG_INFO, "two"));
        // Without any logger the end does not wait.
        close(second);
        MountTmpfs("/dev");
        ProcMgrLog(LOG_INFO, "nobody");
        CloseLog();
    });
}

TEST_F(Log, AStreamTakesLinesThatEndWithANul) {
    Isolated([] {
        const int listener = MakeLogSocket(SOCK_STREAM);
        ProcMgrLog(LOG_INFO, "one");
        ProcMgrLog(LOG_INFO, "two");
        CloseLog();
        const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        char buffer[512] = {};
        const ssize_t length = recv(peer, buffer, sizeof buffer, MSG_DONTWAIT);
        const char* const second = buffer + strlen(buffer) + 1;
        EXPECT_EQ(length, second + strlen(second) + 1 - buffer);
        EXPECT_THAT(buffer, IsSyslogLine(LOG_INFO, "one"));
        EXPECT_THAT(second, IsSyslogLine(LOG_INFO, "two"));
    });
}

// Waits until the log thread is idle. A child that is forked while the thread holds the lock of the
// log queue could not log.
void WaitForIdleLogThread() {
    int looks = 0;
    EXPECT_TRUE(Tests::WaitUntil([&] {
        const fs::directory_iterator threads("/proc/self/task");
        const bool isAsleep = std::any_of(begin(threads), end(threads), [](const auto& thread) {
            return Tests::ReadFile(thread.path() / "stat").find("(log) S") != std::string::npos;
        });
        looks = isAsleep ? looks + 1 : 0;
        return looks == 10;  // after the short sleep that ends a burst of lines
    }));
}

TEST_F(Log, AFaultSignalWritesTheLogOut) {
    Isolated([] {
        const int fd = MakeLogSocket();
        ProcMgrLog(LOG_INFO, "connected");
        EXPECT_THAT(Next(fd), IsSyslogLine(LOG_INFO, "connected"));
        WaitForIdleLogThread();
        // Only the signal handler can write the line out: the child has no log thread.
        Tests::Child child([] {
            InstallSignals();
            // More than the logger has room for.
            for (int i = 0; i < 1000; ++i) {
                LogServiceLine("svc", 42, "text");
            }
            ProcMgrLog(LOG_ERR, "last line");
            return raise(SIGSEGV);
        });
        EXPECT_NE(child.Wait(), 0);
        EXPECT_NE(Next(fd).find("svc[42]"), std::string::npos) << "the oldest one";
        EXPECT_NE(Next(fd).find("last line"), std::string::npos);
    });
}

TEST_F(Log, TheLinesAboutOneRequestAreBounded) {
    Isolated([] {
        const int fd = MakeLogSocket();
        {
            const LogLimit limit("owner");
            for (int i = 0; i < 1000; ++i) {
                ProcMgrLog(LOG_ERR, "wrong %d", i);
            }
        }
        for (int i = 0; i < 8; ++i) {
            EXPECT_THAT(Next(fd), IsSyslogLine(LOG_ERR, "wrong " + std::to_string(i)));
        }
        EXPECT_THAT(Next(fd),
                    IsSyslogLine(LOG_WARNING,
                                 "PROCMGR : 992 more lines about a request of owner are left out"));
    });
}

// The ring wraps many times, and is emptied in both ways.
TEST(LogRingTest, DropsTheLinesOfOldSecondsAndKeepsTheOthersInOrder) {
    constexpr uint32_t AGE = 3;
    LogRing ring(4096);
    std::deque<std::pair<uint32_t, std::string>> expected;
    for (uint32_t step = 0; step < 3000; ++step) {
        const uint32_t second = step / 7 + (step / 500) * 2 * AGE;
        const std::string text(step % 97, static_cast<char>('a' + step % 26));
        char* room = ring.Reserve(text.size());
        while (room == nullptr) {
            ring.Pop();
            expected.pop_front();
            room = ring.Reserve(text.size());
        }
        text.copy(room, text.size());
        ring.Commit(text.size(), second);
        expected.emplace_back(second, text);
        if (step % 11 == 0 && second >= AGE) {
            const auto fresh = std::ranges::find_if(
                expected, [&](const auto& line) { return line.first > second - AGE; });
            ASSERT_EQ(ring.DropUpTo(second - AGE), static_cast<size_t>(fresh - expected.begin()));
            expected.erase(expected.begin(), fresh);
        }
        std::vector<std::string_view> lines(expected.size() + 1);
        ASSERT_EQ(ring.Peek(lines), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            ASSERT_EQ(lines[i], expected[i].second);
        }
    }
    EXPECT_EQ(ring.DropUpTo(UINT32_MAX), expected.size());
    EXPECT_TRUE(ring.IsEmpty());
    for (uint32_t second = 0; second < 20; ++second) {
        ASSERT_NE(ring.Reserve(1), nullptr);
        ring.Commit(1, second);
    }
    EXPECT_EQ(ring.DropUpTo(18), 15) << "the last five count as lines of the last second";
    EXPECT_EQ(ring.DropUpTo(19), 5);
}

}  // namespace
}  // namespace ProcMgr
