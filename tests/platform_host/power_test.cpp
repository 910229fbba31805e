// The power library against scripts that say their words over plain sockets.
#include "platform/power.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/private_run.h"
#include "wire/unique_fd.h"

namespace {

using namespace std::chrono_literals;
using Wire::UniqueFd;

constexpr const char* SOCKET_PATH = "/run/muxa/power";
constexpr auto PATIENCE = 20s;

UniqueFd Connect() {
    UniqueFd peer(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, SOCKET_PATH, strlen(SOCKET_PATH) + 1);
    EXPECT_EQ(connect(peer.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return peer;
}

void Say(const UniqueFd& peer, const std::string& word) {
    EXPECT_EQ(send(peer.Get(), word.data(), word.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(word.size()));
}

// The answer; empty when none comes in time or the connection has ended.
std::string Hear(const UniqueFd& peer, std::chrono::milliseconds patience = PATIENCE) {
    char answer[64];
    pollfd readable{peer.Get(), POLLIN, 0};
    const bool isThere = poll(&readable, 1, static_cast<int>(patience.count())) == 1;
    const ssize_t length = isThere ? recv(peer.Get(), answer, sizeof(answer), MSG_DONTWAIT) : 0;
    return {answer, length > 0 ? static_cast<size_t>(length) : 0};
}

class PowerTest : public PrivateRunTest {
protected:
    void TearDown() override { EXPECT_EQ(UnregisterPowerCalls(), 0); }

    std::atomic<int> suspends_{0};
    std::atomic<int> resumes_{0};
};

TEST_F(PowerTest, WordsMakeTheCallsAndPeersAreKeptApart) {
    EXPECT_EQ(RegisterPowerCalls({}, [] {}), -EINVAL);
    const auto suspend = [this] { ++suspends_; };
    const auto resume = [this] { throw std::runtime_error(std::to_string(++resumes_)); };
    ASSERT_EQ(RegisterPowerCalls(suspend, resume), 0);
    EXPECT_EQ(RegisterPowerCalls(suspend, resume), -EEXIST);
    struct stat status {};
    ASSERT_EQ(stat(SOCKET_PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    UniqueFd peer = Connect();
    for (const auto& [word, answer] : {std::pair<std::string, const char*>("suspend", "ok"),
                                       {"resume", "ok"},
                                       {"suspend\n", "unknown"},
                                       {"Resume", "unknown"},
                                       {{"resume\0", 7}, "unknown"},
                                       {std::string(60000, 'x'), "unknown"},
                                       {"resume", "ok"}}) {
        Say(peer, word);
        EXPECT_EQ(Hear(peer), answer) << word.substr(0, 10);
    }
    EXPECT_EQ(suspends_, 1);
    EXPECT_EQ(resumes_, 2);

    std::vector<UniqueFd> peers;  // one too many with the first: it waits for its turn
    while (peers.size() < 8) {
        peers.push_back(Connect());
        Say(peers.back(), "suspend");
        EXPECT_EQ(Hear(peers.back(), peers.size() == 8 ? 100ms : PATIENCE),
                  peers.size() == 8 ? "" : "ok");
    }
    peer.Reset();
    EXPECT_EQ(Hear(peers.back()), "ok");
}

TEST_F(PowerTest, TheEndWaitsForACallAndLetsNoOtherBegin) {
    std::promise<void> begun;
    std::promise<void> go;
    std::atomic<int32_t> ownEnd{0};
    ASSERT_EQ(RegisterPowerCalls(
                  [&] {
                      ++suspends_;
                      begun.set_value();
                      go.get_future().wait();
                      ownEnd = UnregisterPowerCalls();
                  },
                  [this] { ++resumes_; }),
              0);
    const UniqueFd peer = Connect();
    const UniqueFd other = Connect();
    Say(peer, "suspend");
    Say(other, "resume");
    begun.get_future().wait();
    EXPECT_EQ(Hear(peer, 50ms), "") << "answered before the call has returned";
    EXPECT_EQ(UnregisterPowerCalls(), -EBUSY);
    go.set_value();
    EXPECT_EQ(Hear(peer), "ok");
    while (UnregisterPowerCalls() == -EBUSY) {
    }
    EXPECT_EQ(Hear(other), "");
    EXPECT_EQ(ownEnd, -EBUSY);
    EXPECT_EQ(suspends_, 1);
    EXPECT_EQ(resumes_, 0);
    EXPECT_NE(access(SOCKET_PATH, F_OK), 0);
    ASSERT_EQ(RegisterPowerCalls([] {}, [] {}), 0);
}

}  // namespace
