// The heartbeat library against processes that send their beats over plain sockets. Losses take
// their three seconds; everything else is waited for as an event.
#include "platform/heartbeat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <ctime>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/private_run.h"

namespace {

using namespace std::chrono_literals;
using testing::UnorderedElementsAre;
using Clock = std::chrono::steady_clock;

constexpr auto PATIENCE = 20s;
constexpr const char* SOCKET_PATH = "/run/heartbeat.sock";

// A connection of this process; -1 when there is no socket to connect to.
int Connect(int flags = 0) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, SOCKET_PATH, strlen(SOCKET_PATH) + 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Sends one packet from this process and waits until the library has taken it off the socket;
// returns whether there was a socket to take it.
bool Beat(const std::string& text) {
    const int fd = Connect();
    const bool isSent = send(fd, text.data(), text.size(), MSG_NOSIGNAL) >= 0;
    int untaken = isSent ? 1 : 0;
    while (untaken != 0 && ioctl(fd, SIOCOUTQ, &untaken) == 0) {
        std::this_thread::yield();
    }
    close(fd);
    return isSent;
}

bool HasEnded(int fd, std::chrono::milliseconds patience) {
    pollfd waited{fd, POLLIN, 0};
    return poll(&waited, 1, static_cast<int>(patience.count())) == 1;
}

// Sends one packet from a process with a pid of its own, which stays until it is ended.
pid_t BeatFromAnotherProcess(const std::string& text) {
    const pid_t child = fork();
    if (child == 0) {
        const bool isSent = send(Connect(), text.data(), text.size(), MSG_NOSIGNAL) >= 0;
        raise(isSent ? SIGSTOP : SIGKILL);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
    EXPECT_TRUE(WIFSTOPPED(status));
    return child;
}

void End(pid_t child) {
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

class HeartbeatTest : public PrivateRunTest {
protected:
    void TearDown() override { DisableAllCheckHeartBeat(); }

    static int Register(const std::string& name, HeartBeatCallback callback,
                        pid_t process = getpid()) {
        return RegisterCheckHeartBeat(name.data(), name.size(), process, std::move(callback));
    }
    // Keeps what it is told as "NAME STATUS".
    int Register(const std::string& name, pid_t process = getpid()) {
        return Register(
            name,
            [this, process](const char* text, size_t length, int32_t pid, uint32_t status) {
                EXPECT_EQ(pid, process);
                const std::lock_guard guard(lock_);
                notices_.push_back(std::string(text, length) + ' ' + std::to_string(status));
                changed_.notify_all();
                return 1;
            },
            process);
    }
    static int Unregister(const std::string& name) {
        return UnregisterCheckHeartBeat(name.data(), name.size());
    }
    // All notices, as soon as there are `count`.
    std::vector<std::string> WaitForNotices(size_t count) {
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, PATIENCE, [&] { return notices_.size() >= count; });
        return notices_;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> notices_;
};

using Notices = std::vector<std::string>;

TEST_F(HeartbeatTest, OnlyWhoStoppedToBeatIsLostAndComesBack) {
    for (const char* name : {"quiet", "steady", "never", "impostor", "left", "renewed"}) {
        ASSERT_EQ(Register(name), 0);
    }
    struct stat status {};
    ASSERT_EQ(stat(SOCKET_PATH, &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFSOCK | 0666});

    const std::jthread beater([](const std::stop_token& isOver) {
        while (!isOver.stop_requested()) {
            EXPECT_TRUE(Beat("steady"));
            std::this_thread::sleep_for(200ms);
        }
    });
    const pid_t impostor = BeatFromAnotherProcess("impostor");
    const pid_t early = BeatFromAnotherProcess("early");
    for (const std::string& text : {std::string(128, 'n'), std::string(), std::string("unknown"),
                                    std::string("left"), std::string("renewed")}) {
        ASSERT_TRUE(Beat(text));
    }
    const auto before = Clock::now();
    ASSERT_TRUE(Beat("quiet"));
    ASSERT_EQ(Unregister("left"), 0);
    ASSERT_EQ(Register("renewed"), 0);
    ASSERT_EQ(Register("early", early), 0);

    EXPECT_THAT(WaitForNotices(2), UnorderedElementsAre("quiet 1", "early 1"))
        << "who beats before its registration counts";
    EXPECT_GE(Clock::now() - before, 3000ms);
    EXPECT_LT(Clock::now() - before, 4500ms);
    ASSERT_TRUE(Beat("quiet"));
    // Nobody else has been lost by the time that this one is lost again.
    EXPECT_THAT(WaitForNotices(4),
                UnorderedElementsAre("quiet 1", "early 1", "quiet 0", "quiet 1"));
    End(impostor);
    End(early);
}

TEST_F(HeartbeatTest, AFloodTakesLittleAndLosesNobody) {
    ASSERT_EQ(Register("steady"), 0);
    const int steady = Connect();
    const auto beat = [steady] { return send(steady, "steady", 6, MSG_NOSIGNAL) >= 0; };
    ASSERT_TRUE(beat());
    const int liar = Connect();
    ASSERT_GE(send(liar, "other", 5, MSG_NOSIGNAL), 0);
    EXPECT_TRUE(HasEnded(liar, 2000ms)) << "another service's name";
    close(liar);

    const pid_t flood = fork();
    if (flood == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            const int fd = Connect(SOCK_NONBLOCK);
            send(fd, "steady", 6, MSG_NOSIGNAL);
            close(fd);
        }
    }
    const pid_t greedy = fork();
    if (greedy == 0) {
        std::vector<int> kept;
        while (setresuid(1000, 1000, 1000) == 0 && kept.size() < 20) {
            kept.push_back(Connect());
        }
        const auto ended =
            std::count_if(kept.begin(), kept.end(), [](int fd) { return HasEnded(fd, 100ms); });
        // The rest within the time in which it might still have been registered.
        _exit(ended == 12 && HasEnded(kept[0], 5000ms) ? 0 : 1);
    }
    const auto start = Clock::now();
    const clock_t taken = clock();
    while (Clock::now() - start < 5s) {
        ASSERT_TRUE(beat());
        std::this_thread::sleep_for(500ms);
    }
    EXPECT_LT(clock() - taken, 2.5 * CLOCKS_PER_SEC) << "processor time of this process";
    EXPECT_EQ(WaitForNotices(0), Notices{});
    int status = -1;
    EXPECT_EQ(waitpid(greedy, &status, 0), greedy);
    EXPECT_EQ(status, 0) << "eight unregistered connections of one user";
    End(flood);
    close(steady);
}

TEST_F(HeartbeatTest, CallbacksMayRegisterAndEndEverything) {
    std::promise<void> told;
    const std::string name = "self";
    ASSERT_EQ(Register(name,
                       [&](const char*, size_t, int32_t, uint32_t) {
                           EXPECT_EQ(Unregister(name), 0);
                           EXPECT_EQ(Register("second"), 0);
                           DisableAllCheckHeartBeat();
                           EXPECT_EQ(Unregister("second"), -ENOENT);
                           EXPECT_EQ(Register("third"), 0);
                           told.set_value();
                           return 1;
                       }),
              0);
    ASSERT_TRUE(Beat(name));
    told.get_future().wait();
    // The new watch works, on a socket of its own.
    ASSERT_TRUE(Beat("third"));
    EXPECT_EQ(WaitForNotices(1), Notices{"third 1"});
}

TEST_F(HeartbeatTest, DisablingWaitsForTheCallbackAndEndsAll) {
    std::promise<void> isInside;
    std::promise<void> release;
    ASSERT_EQ(Register("slow",
                       [&](const char*, size_t, int32_t, uint32_t) {
                           isInside.set_value();
                           release.get_future().wait();
                           return 1;
                       }),
              0);
    ASSERT_EQ(Register("other"), 0);
    ASSERT_TRUE(Beat("slow"));
    ASSERT_TRUE(Beat("other"));
    isInside.get_future().wait();
    auto disabled = std::async(std::launch::async, DisableAllCheckHeartBeat);
    EXPECT_EQ(disabled.wait_for(50ms), std::future_status::timeout);
    release.set_value();
    disabled.get();
    EXPECT_FALSE(Beat("other"));
    EXPECT_EQ(Unregister("other"), -ENOENT);
    // Back in service afterwards, and a file that was left behind is no obstacle.
    ASSERT_EQ(mknod(SOCKET_PATH, S_IFREG | 0600, 0), 0);
    ASSERT_EQ(Register("again"), 0);
    EXPECT_TRUE(Beat("again"));
}

}  // namespace
