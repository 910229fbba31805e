// The heartbeat library with processes that send their beats over plain sockets. A loss takes three
// seconds; every other wait ends with an event.
#include "platform/heartbeat.h"

#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <csignal>
#include <ctime>
#include <future>
#include <vector>

#include "tests/platform_host/event_list.h"
#include "tests/support/child.h"
#include "tests/support/private_run.h"
#include "tests/support/raw_peer.h"

namespace {

using namespace std::chrono_literals;
using ProcMgr::Tests::Child;
using ProcMgr::Tests::IsReadable;
using ProcMgr::Tests::RawPeer;
using testing::UnorderedElementsAre;
using Clock = std::chrono::steady_clock;

const std::string SOCKET_PATH = "/run/heartbeat.sock";

// Sends one packet from this process and waits until the library has taken it from the socket.
// Returns false when there is no socket.
bool Beat(const std::string& text) {
    const RawPeer peer(SOCKET_PATH);
    int untaken = peer.IsValid() && peer.Send(text) ? 1 : 0;
    while (untaken != 0 && ioctl(peer.Fd(), SIOCOUTQ, &untaken) == 0) {
        std::this_thread::yield();
    }
    return peer.IsValid();
}

class HeartbeatTest : public PrivateRunTest {
protected:
    void TearDown() override { DisableAllCheckHeartBeat(); }

    static int Register(const std::string& name, HeartBeatCallback callback,
                        pid_t process = getpid()) {
        return RegisterCheckHeartBeat(name.data(), name.size(), process, std::move(callback));
    }
    // Keeps each call of the callback as "NAME STATUS".
    int Register(const std::string& name, pid_t process = getpid()) {
        const auto keep = [=, this](const char* text, size_t length, int32_t pid, uint32_t status) {
            EXPECT_EQ(pid, process);
            notices_.Add(std::string(text, length) + ' ' + std::to_string(status));
            return 1;
        };
        return Register(name, keep, process);
    }
    static int Unregister(const std::string& name) {
        return UnregisterCheckHeartBeat(name.data(), name.size());
    }

    EventList<std::string> notices_;
};

TEST_F(HeartbeatTest, OnlyAProcessThatStopsToBeatIsLostAndComesBack) {
    for (const char* name : {"quiet", "steady", "never", "impostor", "left", "renewed"}) {
        ASSERT_EQ(Register(name), 0);
    }
    const std::jthread beater([](const std::stop_token& isOver) {
        while (!isOver.stop_requested()) {
            EXPECT_TRUE(Beat("steady"));
            std::this_thread::sleep_for(200ms);
        }
    });
    const Child early([] {
        const RawPeer peer(SOCKET_PATH);
        return peer.Send("early") && peer.Send("impostor") ? raise(SIGSTOP) : 1;
    });
    ASSERT_TRUE(early.WaitForStop());
    for (const std::string& text : {std::string(128, 'n'), std::string(), std::string("unknown"),
                                    std::string("left"), std::string("renewed")}) {
        ASSERT_TRUE(Beat(text));
    }
    const auto before = Clock::now();
    ASSERT_TRUE(Beat("quiet"));
    ASSERT_EQ(Unregister("left"), 0);
    ASSERT_EQ(Register("renewed"), 0);
    ASSERT_EQ(Register("early", early.Pid()), 0);

    EXPECT_THAT(notices_.WaitFor(2), UnorderedElementsAre("quiet 1", "early 1"))
        << "a beat before the registration counts";
    EXPECT_GE(Clock::now() - before, 3000ms);
    EXPECT_LT(Clock::now() - before, 4500ms);
    ASSERT_TRUE(Beat("quiet"));
    // When "quiet" is lost again, every other loss would have been reported too.
    EXPECT_THAT(notices_.WaitFor(4),
                UnorderedElementsAre("quiet 1", "early 1", "quiet 0", "quiet 1"));
}

TEST_F(HeartbeatTest, AFloodTakesLittleAndLosesNoOtherProcess) {
    ASSERT_EQ(Register("steady"), 0);
    const RawPeer steady(SOCKET_PATH);
    const RawPeer liar(SOCKET_PATH);
    ASSERT_TRUE(liar.Send("other"));
    EXPECT_TRUE(liar.HasEnded(2000ms)) << "the name of another service";

    const Child flood([]() -> int {
        for (;;) {
            RawPeer(SOCKET_PATH, {}, SOCK_NONBLOCK).Send("steady");
        }
    });
    Child greedy(1000, 1000, [] {
        std::vector<RawPeer> kept;
        while (kept.size() < 8) {
            kept.emplace_back(SOCKET_PATH);
        }
        const bool isRefused = RawPeer(SOCKET_PATH).HasEnded(2000ms);
        // The first eight are ended after the 3 s that a registration may take.
        return isRefused && !IsReadable(kept[7].Fd(), 0ms) && kept[7].HasEnded() ? 0 : 1;
    });
    const auto start = Clock::now();
    const clock_t taken = clock();
    while (Clock::now() - start < 5s) {
        ASSERT_TRUE(steady.Send("steady"));
        std::this_thread::sleep_for(500ms);
    }
    EXPECT_LT(clock() - taken, 2.5 * CLOCKS_PER_SEC) << "processor time of this process";
    EXPECT_THAT(notices_.WaitFor(0), testing::IsEmpty());
    EXPECT_EQ(greedy.ExitCode(), 0) << "eight unregistered connections of one user";
}

TEST_F(HeartbeatTest, CallbacksMayEndEverythingAndDisablingWaitsForThem) {
    std::promise<void> isInside;
    std::promise<void> release;
    const auto onSecondLoss = [&](const char*, size_t, int32_t, uint32_t) {
        isInside.set_value();
        release.get_future().wait();
        return 1;
    };
    const auto onLoss = [&](const char*, size_t, int32_t, uint32_t) {
        EXPECT_EQ(Unregister("self"), 0);
        EXPECT_EQ(Register("other"), 0);
        DisableAllCheckHeartBeat();
        EXPECT_EQ(Unregister("other"), -ENOENT);
        EXPECT_EQ(Register("other"), 0);
        EXPECT_EQ(Register("slow", onSecondLoss), 0);
        notices_.Add("callback");
        return 1;
    };
    ASSERT_EQ(Register("self", onLoss), 0);
    ASSERT_TRUE(Beat("self"));
    ASSERT_THAT(notices_.WaitFor(1), testing::ElementsAre("callback"));
    ASSERT_TRUE(Beat("slow"));
    isInside.get_future().wait();
    auto disabled = std::async(std::launch::async, DisableAllCheckHeartBeat);
    EXPECT_EQ(disabled.wait_for(50ms), std::future_status::timeout);
    release.set_value();
    disabled.get();
    EXPECT_FALSE(Beat("other"));
    EXPECT_EQ(Unregister("other"), -ENOENT);
    // A new registration works, also with a file in the place of the socket.
    ASSERT_EQ(mknod(SOCKET_PATH.c_str(), S_IFREG | 0600, 0), 0);
    ASSERT_EQ(Register("again"), 0);
    EXPECT_TRUE(Beat("again"));
}

}  // namespace
