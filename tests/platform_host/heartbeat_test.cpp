// The heartbeat library against processes that send their beats over plain sockets. Losses take
// their three seconds; everything else is waited for as an event.
#include "platform/heartbeat.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <ostream>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/private_mounts.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto PATIENCE = 20s;
constexpr const char* SOCKET_PATH = "/run/heartbeat.sock";

// Sends one datagram from this process and waits until the library has taken it off the socket, and
// so has dealt with all earlier ones; returns whether there was a socket to take it.
bool Beat(const std::string& text) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, SOCKET_PATH, strlen(SOCKET_PATH) + 1);
    const bool isSent = sendto(fd, text.data(), text.size(), 0,
                               reinterpret_cast<sockaddr*>(&address), sizeof(address)) >= 0;
    int untaken = isSent ? 1 : 0;
    while (untaken != 0 && ioctl(fd, SIOCOUTQ, &untaken) == 0) {
        std::this_thread::yield();
    }
    close(fd);
    return isSent;
}

// Sends one datagram from a process with a pid of its own.
void BeatFromAnotherProcess(const std::string& text) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(Beat(text) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
}

struct Notice {
    std::string name;
    int32_t pid = 0;
    uint32_t status = 0;
    bool operator==(const Notice&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Notice& notice) {
    return out << notice.name << ' ' << notice.pid << ' ' << notice.status;
}

class HeartbeatTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        isPrivate_ = EnterPrivateMountNamespace();
        if (isPrivate_) {
            MountTmpfs("/run");
        }
    }
    void SetUp() override {
        if (!isPrivate_) {
            GTEST_SKIP() << "no private mount namespace: not root, or the kernel forbids it";
        }
    }
    void TearDown() override { DisableAllCheckHeartBeat(); }

    int Register(const std::string& name, int32_t pid = getpid()) {
        return RegisterCheckHeartBeat(
            name.data(), name.size(), pid,
            [this](const char* text, size_t length, int32_t of, uint32_t status) {
                const std::lock_guard guard(lock_);
                notices_.push_back({std::string(text, length), of, status});
                changed_.notify_all();
                return 1;
            });
    }
    static int Unregister(const std::string& name) {
        return UnregisterCheckHeartBeat(name.data(), name.size());
    }
    // All notices, as soon as there are `count`.
    std::vector<Notice> WaitForNotices(size_t count) {
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, PATIENCE, [&] { return notices_.size() >= count; });
        return notices_;
    }

private:
    static inline bool isPrivate_ = false;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Notice> notices_;
};

TEST_F(HeartbeatTest, OnlyWhoStoppedToBeatIsLostAndComesBack) {
    const std::string longest(127, 'n');
    const std::string tooLong(128, 'n');
    for (const char* name : {"quiet", "steady", "never", "impostor", "left", "renewed"}) {
        ASSERT_EQ(Register(name), 0);
    }
    ASSERT_EQ(Register(longest), 0);
    struct stat status {};
    ASSERT_EQ(stat(SOCKET_PATH, &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFSOCK | 0666});

    const std::jthread beater([](const std::stop_token& isOver) {
        while (!isOver.stop_requested()) {
            EXPECT_TRUE(Beat("steady"));
            std::this_thread::sleep_for(200ms);
        }
    });
    BeatFromAnotherProcess("impostor");
    for (const std::string& text : {tooLong, std::string(), std::string("unknown"),
                                    std::string("left"), std::string("renewed"), std::string()}) {
        ASSERT_TRUE(Beat(text));
    }
    const auto before = Clock::now();
    ASSERT_TRUE(Beat("quiet"));
    ASSERT_EQ(Unregister("left"), 0);
    ASSERT_EQ(Register("renewed"), 0);

    const Notice lost{"quiet", getpid(), 1};
    EXPECT_EQ(WaitForNotices(1), std::vector<Notice>{lost});
    EXPECT_GE(Clock::now() - before, 3000ms);
    EXPECT_LT(Clock::now() - before, 4500ms);
    BeatFromAnotherProcess("quiet");
    ASSERT_TRUE(Beat("quiet"));
    const Notice back{"quiet", getpid(), 0};
    EXPECT_EQ(WaitForNotices(2), (std::vector<Notice>{lost, back}));
    // Nobody else has been lost by the time that this one is lost again.
    ASSERT_TRUE(Beat(longest));
    auto notices = WaitForNotices(4);
    ASSERT_EQ(notices.size(), 4U);
    EXPECT_TRUE((notices[2] == lost && notices[3].name == longest) ||
                (notices[3] == lost && notices[2].name == longest));
}

TEST_F(HeartbeatTest, CallbacksMayRegisterAndEndEverything) {
    std::promise<std::thread::id> told;
    const std::string name = "self";
    const auto callback = [&](const char*, size_t, int32_t, uint32_t) {
        EXPECT_EQ(Unregister(name), 0);
        EXPECT_EQ(Register("second"), 0);
        DisableAllCheckHeartBeat();
        EXPECT_EQ(Unregister("second"), -ENOENT);
        EXPECT_EQ(Register("third"), 0);
        told.set_value(std::this_thread::get_id());
        return 1;
    };
    ASSERT_EQ(RegisterCheckHeartBeat(name.data(), name.size(), getpid(), callback), 0);
    ASSERT_TRUE(Beat(name));
    EXPECT_NE(told.get_future().get(), std::this_thread::get_id());
    // The new watch works, on a socket of its own.
    ASSERT_TRUE(Beat("third"));
    EXPECT_EQ(WaitForNotices(1), (std::vector<Notice>{{"third", getpid(), 1}}));
}

TEST_F(HeartbeatTest, DisablingWaitsForTheCallbackAndEndsAll) {
    std::promise<void> isInside;
    std::promise<void> release;
    std::atomic<bool> isReturning = false;
    const std::string name = "slow";
    const auto callback = [&](const char*, size_t, int32_t, uint32_t) {
        isInside.set_value();
        release.get_future().wait();
        isReturning = true;
        return 1;
    };
    ASSERT_EQ(RegisterCheckHeartBeat(name.data(), name.size(), getpid(), callback), 0);
    ASSERT_EQ(Register("other"), 0);
    ASSERT_TRUE(Beat(name));
    ASSERT_TRUE(Beat("other"));
    isInside.get_future().wait();
    auto disabled = std::async(std::launch::async, [&] {
        DisableAllCheckHeartBeat();
        return isReturning.load();
    });
    EXPECT_EQ(disabled.wait_for(50ms), std::future_status::timeout);
    release.set_value();
    EXPECT_TRUE(disabled.get());
    EXPECT_NE(access(SOCKET_PATH, F_OK), 0);
    EXPECT_FALSE(Beat("other"));
    EXPECT_EQ(Unregister("other"), -ENOENT);
    // Back in service afterwards, and a file that was left behind is no obstacle.
    ASSERT_EQ(mknod(SOCKET_PATH, S_IFREG | 0600, 0), 0);
    ASSERT_EQ(Register("again"), 0);
    EXPECT_TRUE(Beat("again"));
}

TEST_F(HeartbeatTest, WrongArgumentsAreRefused) {
    const std::string name(128, 'n');
    const HeartBeatCallback callback = [](const char*, size_t, int32_t, uint32_t) { return 1; };
    EXPECT_EQ(RegisterCheckHeartBeat(nullptr, 1, 1, callback), -EINVAL);
    EXPECT_EQ(RegisterCheckHeartBeat(name.data(), 0, 1, callback), -EINVAL);
    EXPECT_EQ(RegisterCheckHeartBeat(name.data(), 128, 1, callback), -EINVAL);
    EXPECT_EQ(RegisterCheckHeartBeat(name.data(), 127, 0, callback), -EINVAL);
    EXPECT_EQ(RegisterCheckHeartBeat(name.data(), 127, 1, nullptr), -EINVAL);
    EXPECT_EQ(Unregister("nobody"), -ENOENT);
    EXPECT_NE(access(SOCKET_PATH, F_OK), 0) << "nothing is opened before a registration succeeds";
}

}  // namespace
