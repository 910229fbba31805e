// The power library with scripts that send their commands over plain sockets.
#include "platform/power.h"

#include <atomic>
#include <future>
#include <vector>

#include "tests/support/private_run.h"
#include "tests/support/raw_peer.h"

namespace {

using namespace std::chrono_literals;
using ProcMgr::Tests::RawPeer;

const std::string SOCKET_PATH = "/run/muxa/power";

class PowerTest : public PrivateRunTest {
protected:
    void TearDown() override { EXPECT_EQ(UnregisterPowerCalls(), 0); }

    std::atomic<int> suspends_{0};
    std::atomic<int> resumes_{0};
};

TEST_F(PowerTest, CommandsMakeTheCallsOnceEachAndPeersAreLimited) {
    EXPECT_EQ(RegisterPowerCalls({}, [] {}), -EINVAL);
    const auto suspend = [this] { ++suspends_; };
    const auto resume = [this] { throw std::runtime_error(std::to_string(++resumes_)); };
    ASSERT_EQ(RegisterPowerCalls(suspend, resume), 0);
    EXPECT_EQ(RegisterPowerCalls(suspend, resume), -EEXIST);
    struct stat status {};
    ASSERT_EQ(stat(SOCKET_PATH.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    RawPeer peer(SOCKET_PATH);
    for (const auto& [command, answer] : {std::pair<std::string, const char*>("suspend", "ok"),
                                          {"resume", "ok"},
                                          {"suspend\n", "unknown"},
                                          {{"resume\0", 7}, "unknown"},
                                          {std::string(60000, 'x'), "unknown"},
                                          {"resume", "ok"}}) {
        ASSERT_TRUE(peer.Send(command));
        EXPECT_EQ(peer.Receive(), answer) << command.substr(0, 10);
    }
    EXPECT_EQ(suspends_, 1);
    EXPECT_EQ(resumes_, 2);

    std::vector<RawPeer> peers;
    while (peers.size() < 7) {
        ASSERT_TRUE(peers.emplace_back(SOCKET_PATH).Send("suspend"));
        EXPECT_EQ(peers.back().Receive(), "ok");
    }
    const RawPeer oneTooMany(SOCKET_PATH);
    ASSERT_TRUE(oneTooMany.Send("suspend"));
    EXPECT_EQ(oneTooMany.Receive(100ms), std::nullopt);
    peer.Close();
    EXPECT_EQ(oneTooMany.Receive(), "ok");
}

TEST_F(PowerTest, TheEndWaitsForACallAndLetsNoOtherBegin) {
    std::promise<void> begun;
    std::promise<void> go;
    const auto suspend = [&] {
        ++suspends_;
        begun.set_value();
        go.get_future().wait();
        EXPECT_EQ(UnregisterPowerCalls(), -EBUSY);
    };
    ASSERT_EQ(RegisterPowerCalls(suspend, [this] { ++resumes_; }), 0);
    const RawPeer peer(SOCKET_PATH);
    const RawPeer other(SOCKET_PATH);
    ASSERT_TRUE(peer.Send("suspend") && other.Send("resume"));
    begun.get_future().wait();
    EXPECT_EQ(peer.Receive(50ms), std::nullopt) << "answered before the call has returned";
    EXPECT_EQ(UnregisterPowerCalls(), -EBUSY);
    go.set_value();
    EXPECT_EQ(peer.Receive(), "ok");
    EXPECT_TRUE(ProcMgr::Tests::WaitUntil([] { return UnregisterPowerCalls() != -EBUSY; }));
    EXPECT_EQ(other.Receive(), "");
    EXPECT_EQ(suspends_, 1);
    EXPECT_EQ(resumes_, 0);
    EXPECT_NE(access(SOCKET_PATH.c_str(), F_OK), 0);
    ASSERT_EQ(RegisterPowerCalls([] {}, [] {}), 0);
}

}  // namespace
