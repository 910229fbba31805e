// The messaging library with peers that send its packets over plain sockets. The bytes of a packet
// are checked in tests/wire.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <array>
#include <atomic>
#include <csignal>
#include <future>
#include <latch>
#include <tuple>
#include <vector>

#include "platform/messaging.h"
#include "tests/platform_host/event_list.h"
#include "tests/support/child.h"
#include "tests/support/private_run.h"
#include "tests/support/raw_peer.h"
#include "wire/packet.h"
#include "wire/socket_paths.h"

namespace {

using namespace std::chrono_literals;
using ProcMgr::Tests::Child;
using ProcMgr::Tests::RawPeer;
using ProcMgr::Tests::WaitUntil;
using testing::ElementsAre;
using Wire::PipePath;
using Wire::ServerPath;

constexpr uint32_t GROUP = 4321;
const std::string LARGE(60000, 'f');

std::string Packet(uint32_t kind, uint64_t sequence, const std::string& body) {
    std::array<uint8_t, 16> header{};
    Wire::EncodePacketHeader({static_cast<Wire::PacketKind>(kind), sequence}, header);
    return std::string(header.begin(), header.end()) + body;
}

// A response to the call that came in `question`.
std::string Answer(const std::string& question, const std::string& body) {
    return Packet(3, 0, "").substr(0, 8) + question.substr(8, 8) + body;
}

class Peer : public RawPeer {
public:
    using RawPeer::RawPeer;
    void Say(const std::string& body) const { EXPECT_TRUE(Send(Packet(1, 0, body))); }
    void Ask(uint64_t sequence, const std::string& body) const {
        EXPECT_TRUE(Send(Packet(2, sequence, body)));
    }
    // The next packet; "" for the end of the connection.
    std::string Hear() const { return Receive().value_or("timeout"); }
};

// One call of a callback.
struct Event {
    int32_t fd = 0;
    std::string name;
    std::string body;  // "END" for the end of the connection
    MuxaRequest request;
    sigset_t blocked{};  // signals of the thread
};

// Sends a request, or a call when there is a place for the response.
int32_t Send(int32_t fd, const std::string& body, MuxaResponse* response = nullptr,
             int32_t timeout = 0) {
    MuxaRequest request;
    request.data = body.data();
    request.length = static_cast<uint32_t>(body.size());
    return response == nullptr ? MuxaSendRequest(fd, &request)
                               : MuxaTimedRPCSync(fd, &request, response, timeout);
}
int32_t Respond(int32_t fd, uint64_t sequence, const std::string& body) {
    const MuxaResponse response{{body.begin(), body.end()}, sequence};
    return MuxaSendResponse(fd, &response);
}
int32_t CloseWhenIdle(int32_t fd) {
    int32_t result = -EBUSY;
    WaitUntil([&] { return (result = MuxaClosePipe(fd)) != -EBUSY; });
    return result;
}

class MuxaTest : public PrivateRunTest {
protected:
    // To be called also before an object that a callback uses goes out of scope.
    void TearDown() override {
        for (const int32_t fd : open_) {
            EXPECT_THAT(CloseWhenIdle(fd), testing::AnyOf(0, -EBADF));
        }
    }
    int32_t Keep(int32_t fd) {
        EXPECT_GE(fd, 1) << strerror(-fd);
        return open_.emplace_back(fd);
    }
    int32_t OpenPipe(const std::string& name, const MuxaCallback& callback, pid_t pid = getpid()) {
        return Keep(MuxaOpen({.name = name, .value = GROUP, .pid = pid, .callback = callback}));
    }
    // A pipe, or a server, whose callback records its calls.
    int32_t OpenPipe(const std::string& name) { return OpenPipe(name, record_); }
    int32_t OpenServer(const std::string& name, uint32_t maxPeers) {
        return Keep(MuxaCreateServer({name, record_}, maxPeers, 0));
    }
    // The recorded call at `index`; waits for it.
    Event At(size_t index) const { return events_.WaitFor(index + 1).at(index); }
    // The bodies of all recorded calls, as soon as there are `count`.
    std::vector<std::string> Bodies(size_t count) const {
        std::vector<std::string> bodies;
        for (const Event& event : events_.WaitFor(count)) {
            bodies.push_back(event.body);
        }
        return bodies;
    }

    const MuxaCallback record_ = [this](int32_t fd, const MuxaRequest* request,
                                        const std::string& name) {
        Event event{fd, name, "END", {}, {}};
        pthread_sigmask(SIG_SETMASK, nullptr, &event.blocked);
        if (request != nullptr) {
            event.body.assign(static_cast<const char*>(request->data), request->length);
            event.request = *request;
        }
        events_.Add(std::move(event));
    };

    EventList<Event> events_;
    std::vector<int32_t> open_;
};

TEST_F(MuxaTest, SocketFilesFollowTheContract) {
    const mode_t previous = umask(0077);
    const int32_t pipe = OpenPipe("own");
    const int32_t server = OpenServer("any", 1);
    umask(previous);
    const std::tuple<const char*, mode_t, gid_t> files[] = {
        {"/run/muxa/pipe", S_IFDIR | 0755, 0},
        {"/run/muxa/pipe/own", S_IFSOCK | 0660, GROUP},
        {"/run/muxa/server/any", S_IFSOCK | 0666, getegid()},
    };
    for (const auto& [path, mode, group] : files) {
        struct stat status {};
        EXPECT_EQ(lstat(path, &status), 0) << path;
        EXPECT_EQ(status.st_mode, mode) << path;
        EXPECT_EQ(status.st_gid, group) << path;
    }
    EXPECT_EQ(CloseWhenIdle(pipe), 0);
    EXPECT_EQ(CloseWhenIdle(server), 0);
    EXPECT_FALSE(std::filesystem::exists("/run/muxa/pipe/own"));
    EXPECT_FALSE(std::filesystem::exists("/run/muxa/server/any"));
}

TEST_F(MuxaTest, WrongArgumentsAreRefused) {
    const int32_t fd = OpenPipe("taken");
    for (const auto& [name, result] : {std::pair(std::string(".."), -EINVAL),
                                       {std::string(120, 'n'), -ENAMETOOLONG},
                                       {"taken", -EADDRINUSE}}) {
        EXPECT_EQ(MuxaOpen({.name = name, .callback = record_}), result) << name;
    }
    EXPECT_EQ(MuxaOpen({.name = "no_callback", .callback = nullptr}), -EINVAL);
    EXPECT_EQ(Peer(PipePath("taken")).Error(), 0) << "the first opening stays";
    EXPECT_EQ(Send(fd, std::string(65537, 'x')), -EMSGSIZE);
    EXPECT_EQ(CloseWhenIdle(fd), 0);
    MuxaResponse response;
    for (const int32_t stale : {fd, 0, -1, 1 << 30}) {
        EXPECT_EQ(Send(stale, "x"), -EBADF) << stale;
        EXPECT_EQ(Respond(stale, 1, "x"), -EBADF) << stale;
        EXPECT_EQ(Send(stale, "x", &response), -EBADF) << stale;
        EXPECT_EQ(MuxaClosePipe(stale), -EBADF) << stale;
    }
    EXPECT_NE(OpenPipe("taken"), fd) << "a stale descriptor must not reach the next pipe";
}

TEST_F(MuxaTest, RequestsArriveInOrderOnWorkersWithoutSignalsAndSocketsAreCloseOnExec) {
    const int32_t fd = OpenPipe("in");
    const Peer peer(PipePath("in"));
    const std::vector<std::string> bodies = {"", std::string(65536, '\xA5'), "last", "question"};
    for (size_t i = 0; i < 3; ++i) {
        peer.Say(bodies[i]);
    }
    peer.Ask(0x1122334455667788, bodies[3]);
    for (size_t i = 0; i < bodies.size(); ++i) {
        const Event event = At(i);
        EXPECT_TRUE(event.body == bodies[i]) << i;
        EXPECT_EQ(event.request.wantsResponse, i == 3);
        EXPECT_EQ(event.request.sequence, i == 3 ? 0x1122334455667788U : 0U);
        EXPECT_EQ(event.fd, fd);
        EXPECT_EQ(event.name, "in");
        EXPECT_EQ(event.request.peerPid, getpid());
        EXPECT_EQ(sigismember(&event.blocked, SIGTERM), 1);
    }
    ASSERT_EQ(Respond(fd, 0x1122334455667788, "yes"), 0);
    EXPECT_EQ(peer.Hear(), Packet(3, 0x1122334455667788, "yes"));
    size_t sockets = 0;
    for (int number = 0; number < 100; ++number) {
        int type = 0;
        socklen_t length = sizeof(type);
        getsockopt(number, SOL_SOCKET, SO_TYPE, &type, &length);
        sockets += type == SOCK_SEQPACKET ? 1 : 0;
        EXPECT_TRUE(type != SOCK_SEQPACKET || (fcntl(number, F_GETFD) & FD_CLOEXEC) != 0);
    }
    EXPECT_EQ(sockets, 3U);
}

TEST_F(MuxaTest, RecordsWaitForAPeerUpToTheLimit) {
    const int32_t fd = OpenPipe("queue");
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(Send(fd, "record " + std::to_string(i)), 0) << i;
    }
    EXPECT_EQ(Send(fd, "one too many"), -EAGAIN);
    EXPECT_EQ(Respond(fd, 1, ""), -EPIPE) << "a response does not wait for a peer";

    const Peer peer(PipePath("queue"));
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(peer.Hear(), Packet(1, 0, "record " + std::to_string(i)));
    }
    // The peer does not read: the socket and then the queue are filled, and no call waits.
    size_t sent = 0;
    while (Send(fd, std::to_string(sent) + LARGE) == 0) {
        ++sent;
    }
    for (size_t i = 0; i < sent; ++i) {
        ASSERT_TRUE(peer.Hear() == Packet(1, 0, std::to_string(i) + LARGE)) << i;
    }
}

TEST_F(MuxaTest, TheNextPeerGetsWaitingRecordsButNoResponses) {
    const int32_t fd = OpenPipe("heir");
    Peer first(PipePath("heir"));
    first.Ask(9, "question");
    EXPECT_EQ(At(0).body, "question");
    const Peer second(PipePath("heir"));
    second.Say("second");
    const Peer more[] = {Peer(PipePath("heir")), Peer(PipePath("heir")), Peer(PipePath("heir"))};
    EXPECT_EQ(Peer(PipePath("heir")).Hear(), "") << "four may wait";
    // More than the socket holds, so that the response and the record after it are queued.
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(Send(fd, LARGE), 0);
    }
    ASSERT_EQ(Respond(fd, 9, "late"), 0);
    ASSERT_EQ(Send(fd, "end"), 0);
    EXPECT_THAT(Bodies(1), ElementsAre("question")) << "one peer at a time";
    // With so much unread the close resets the connection; packets sent before it still count.
    first.Say("goodbye");
    first.Close();
    EXPECT_THAT(Bodies(4), ElementsAre("question", "goodbye", "END", "second"));
    std::string packet;
    do {
        packet = second.Hear();
    } while (packet == Packet(1, 0, LARGE));
    EXPECT_EQ(packet, Packet(1, 0, "end"));
}

TEST_F(MuxaTest, BadPacketsEndTheConnectionOnce) {
    OpenPipe("strict");
    std::vector<std::string> calls;
    for (const std::string& packet : {Packet(4, 0, "x"), Packet(1, 0, std::string(65537, 'x')),
                                      std::string("no packet"), std::string()}) {
        const Peer peer(PipePath("strict"));
        peer.Say("fine");
        EXPECT_TRUE(peer.Send(packet));
        EXPECT_EQ(peer.Hear(), "") << packet.substr(0, 20);
        calls.insert(calls.end(), {"fine", "END"});
        EXPECT_EQ(Bodies(calls.size()), calls);
    }
}

TEST_F(MuxaTest, APipeIsForItsServiceAndItsDescendants) {
    const Child other;
    const auto answer = [this](int32_t fd, const MuxaRequest* request, const std::string& name) {
        if (request != nullptr) {
            Respond(fd, request->sequence, "yes");
        }
        record_(fd, request, name);
    };
    OpenPipe("own", answer);
    OpenPipe("others", answer, other.Pid());
    OpenPipe("roots", answer, 0);
    const Peer root(PipePath("others"));  // takes up its pipe, and only this one
    for (const std::string name : {"own", "others", "roots"}) {
        Child peer(1000, GROUP, [name] {
            prctl(PR_SET_NAME, "a) S 1 (b");  // looks like the status of another process
            const Peer own(PipePath(name));
            own.Send(Packet(2, 7, "hello"));
            return own.Error() == 0 && own.Hear() == (name == "own" ? Packet(3, 7, "yes") : "") ? 0
                                                                                                : 1;
        });
        EXPECT_EQ(peer.ExitCode(), 0) << name;
    }
    EXPECT_EQ(At(0).request.peerUid, 1000U);
    EXPECT_EQ(At(0).request.peerGid, GROUP);
    EXPECT_EQ(At(1).body, "END");
    root.Ask(8, "still there");
    EXPECT_EQ(root.Hear(), Packet(3, 8, "yes"));
    EXPECT_THAT(Bodies(3), ElementsAre("hello", "END", "still there"))
        << "no call for a peer that was refused";
}

TEST_F(MuxaTest, OneUserOrOnePeerTakesOnlySoMuchOfAServer) {
    OpenServer("shared", 100);
    OpenServer("few", 4);
    const auto before = std::chrono::steady_clock::now();
    Child user(1000, 1000, [] {
        std::vector<Peer> silent;
        for (const auto& [server, places] : {std::pair("shared", 32), {"few", 3}}) {
            for (int i = 0; i < places; ++i) {
                silent.emplace_back(ServerPath(server));
            }
            if (!Peer(ServerPath(server)).Hear().empty()) {
                return 1;
            }
        }
        return silent.front().Hear().empty() && silent.back().Hear().empty() ? 0 : 2;
    });
    const Peer peer(ServerPath("shared"));  // goes on asking, and so stays
    EXPECT_TRUE(WaitUntil([&] {
        peer.Ask(1, "ask");
        return !user.IsRunning();
    }));
    EXPECT_EQ(user.ExitCode(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, 4s);
    EXPECT_TRUE(WaitUntil([&] {
        const auto bodies = Bodies(0);
        return std::count(bodies.begin(), bodies.end(), "END") == 35;
    })) << "the end of each silent peer is reported";
    // The socket holds some answers, and the queue 16 more.
    const int32_t fd = At(0).fd;
    int answers = 0;
    while (answers < 100 && Respond(fd, 1, LARGE) == 0) {
        ++answers;
    }
    EXPECT_LT(answers, 30);
    EXPECT_EQ(Respond(fd, 1, LARGE), -EAGAIN);
    for (int i = 0; i < answers; ++i) {
        ASSERT_TRUE(peer.Hear() == Packet(3, 1, LARGE)) << "a later request keeps a peer longer";
    }
}

TEST_F(MuxaTest, CallsWaitForTheResponseOfTheirSequence) {
    const int32_t fd = OpenPipe("rpc");
    MuxaResponse response;
    EXPECT_EQ(Send(fd, "nobody hears this", &response, 1), -ETIMEDOUT);
    Peer peer(PipePath("rpc"));
    peer.Say("here");
    EXPECT_EQ(At(0).body, "here");
    EXPECT_EQ(Send(fd, "ignored", &response, 1), -ETIMEDOUT);
    const std::string ignored = peer.Hear();
    EXPECT_EQ(ignored.substr(16), "ignored") << "a call that timed out in the queue is withdrawn";

    const auto ask = [&] { return Send(fd, "ask", &response, 20000); };
    auto answered = std::async(std::launch::async, ask);
    const std::string question = peer.Hear();
    EXPECT_EQ(question, Packet(2, 0, "").substr(0, 8) + question.substr(8, 8) + "ask");
    peer.Send(Answer(ignored, "too late"));
    peer.Say("between");
    peer.Send(Answer(question, "answer"));
    EXPECT_EQ(answered.get(), 0);
    EXPECT_EQ(std::string(response.data.begin(), response.data.end()), "answer");
    EXPECT_EQ(At(1).body, "between");

    auto orphaned = std::async(std::launch::async, ask);
    EXPECT_EQ(peer.Hear().substr(16), "ask");
    peer.Close();
    EXPECT_EQ(orphaned.get(), -EPIPE);
}

TEST_F(MuxaTest, BlockedCallbacksHoldUpOnlyTheirOwnPipeAndItsClose) {
    constexpr int BLOCKED = 12;  // more than the workers at the start
    std::atomic<int> calls = 0;
    std::latch allIn(BLOCKED);
    std::latch released(1);
    int32_t closing = 0;
    std::vector<Peer> peers;
    for (int i = 0; i < BLOCKED; ++i) {
        const std::string name = "blocked" + std::to_string(i);
        closing = OpenPipe(name, [&, isLast = i == BLOCKED - 1](int32_t own, auto&&...) {
            EXPECT_TRUE(!isLast || MuxaClosePipe(own) == -EBUSY);
            if (calls++ < BLOCKED) {
                allIn.count_down();
            }
            released.wait();
        });
        peers.emplace_back(PipePath(name));
        peers.back().Say("one");
        peers.back().Say("two");
    }
    allIn.wait();
    OpenPipe("free");
    const Peer peer(PipePath("free"));
    peer.Say("served");
    EXPECT_EQ(At(0).body, "served");
    EXPECT_EQ(calls, BLOCKED) << "a second request waits for the callback of the first";
    EXPECT_EQ(MuxaClosePipe(closing), -EBUSY);
    released.count_down();
    EXPECT_EQ(CloseWhenIdle(closing), 0);
    EXPECT_EQ(peers.back().Hear(), "");
    EXPECT_FALSE(Peer(PipePath("blocked11")).IsValid());
    EXPECT_TRUE(WaitUntil([&] { return calls >= 2 * BLOCKED - 1; }));
    TearDown();
    EXPECT_EQ(calls, 2 * BLOCKED - 1) << "no callback after the first attempt to close";
}

TEST_F(MuxaTest, AServerHasOneDescriptorForEachPeer) {
    const int32_t server = OpenServer("many", 2);
    Peer first(ServerPath("many"));
    first.Say("first");
    const int32_t firstFd = At(0).fd;
    const Peer second(ServerPath("many"));
    second.Ask(5, "second");
    const int32_t secondFd = At(1).fd;
    EXPECT_EQ(Respond(secondFd, 5, "ok"), 0);
    EXPECT_EQ(Send(firstFd, "to the first"), 0);
    EXPECT_EQ(Send(server, "to whom?"), -EBADF);
    EXPECT_EQ(second.Hear(), Packet(3, 5, "ok"));
    EXPECT_EQ(first.Hear(), Packet(1, 0, "to the first"));

    Peer third(ServerPath("many"));  // waits for a place
    third.Say("third");
    first.Close();
    EXPECT_EQ(At(2).body, "END");
    EXPECT_EQ(At(2).fd, firstFd);
    EXPECT_EQ(At(3).body, "third");
    EXPECT_EQ(Send(firstFd, "gone"), -EBADF);
    // The server closes one connection: no end is reported, and the others stay.
    EXPECT_EQ(CloseWhenIdle(At(3).fd), 0);
    EXPECT_EQ(third.Hear(), "");
    EXPECT_EQ(Send(secondFd, "still there"), 0);
    EXPECT_EQ(CloseWhenIdle(server), 0);
    EXPECT_EQ(second.Hear(), Packet(1, 0, "still there"));
    EXPECT_EQ(second.Hear(), "");
    EXPECT_EQ(Bodies(0).size(), 4U);
}

}  // namespace
