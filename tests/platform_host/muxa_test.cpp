// The messaging library against peers that speak its packets byte by byte over plain sockets.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/messaging.h"
#include "tests/support/private_mounts.h"

namespace {

using namespace std::chrono_literals;

// Longer than anything takes that is going to happen at all.
constexpr auto PATIENCE = 20s;
constexpr uint32_t GROUP = 4321;

// Little-endian header and body, spelled out apart from the library's own code.
std::string Packet(uint32_t kind, uint64_t sequence, const std::string& body,
                   const std::string& magic = "MUXA") {
    std::string packet = magic;
    for (int shift = 0; shift < 32; shift += 8) {
        packet += static_cast<char>(kind >> shift);
    }
    for (int shift = 0; shift < 64; shift += 8) {
        packet += static_cast<char>(sequence >> shift);
    }
    return packet + body;
}

std::string PipePath(const std::string& name) {
    return "/run/muxa/pipe/" + name;
}
std::string ServerPath(const std::string& name) {
    return "/run/muxa/server/" + name;
}

// A peer on a plain socket. Its socket blocks, with a limit, unless said otherwise.
class RawPeer {
public:
    explicit RawPeer(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const timeval limit{20, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        error_ =
            connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
    }
    ~RawPeer() { Close(); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    int Error() const { return error_; }
    void Close() {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = -1;
    }
    void Send(const std::string& packet) const {
        ASSERT_EQ(send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
    }
    // The next packet; "" stands for the end of the connection.
    std::string Receive() const {
        std::string packet(70000, '\0');
        const ssize_t length = recv(fd_, packet.data(), packet.size(), 0);
        if (length < 0 && errno == ECONNRESET) {
            return "";
        }
        packet.resize(length < 0 ? 0 : static_cast<size_t>(length));
        return length < 0 ? std::string("error ") + strerror(errno) : packet;
    }
    bool HasInput() const {
        pollfd waited{fd_, POLLIN, 0};
        return poll(&waited, 1, 0) == 1;
    }

private:
    int fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    int error_ = 0;
};

struct Event {
    int32_t fd = 0;
    std::string name;
    bool isEnd = false;
    std::string body;
    MuxaRequest request;
};

// Collects what a callback is told.
class Recorder {
public:
    MuxaCallback Callback() {
        return [this](int32_t fd, const MuxaRequest* request, const std::string& name) {
            Event event{fd, name, request == nullptr, {}, {}};
            if (request != nullptr) {
                event.body.assign(static_cast<const char*>(request->data), request->length);
                event.request = *request;
            }
            const std::lock_guard guard(lock_);
            events_.push_back(event);
            changed_.notify_all();
        };
    }
    // The event at `index`, waiting for it; one of name "timeout" when it does not come.
    Event At(size_t index) {
        std::unique_lock guard(lock_);
        const bool isThere =
            changed_.wait_for(guard, PATIENCE, [&] { return events_.size() > index; });
        return isThere ? events_[index] : Event{0, "timeout", false, "timeout", {}};
    }
    size_t Count() {
        const std::lock_guard guard(lock_);
        return events_.size();
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

class MuxaTest : public testing::Test {
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
    void TearDown() override { CloseAll(); }
    // Before anything that the callbacks refer to goes out of scope.
    void CloseAll() {
        for (const int32_t fd : open_) {
            EXPECT_EQ(CloseWhenIdle(fd), 0);
        }
        open_.clear();
    }

    int32_t OpenPipe(const std::string& name, MuxaCallback callback) {
        MuxaOpenAttributes attributes;
        attributes.name = name;
        attributes.value = GROUP;
        attributes.callback = std::move(callback);
        const int32_t fd = MuxaOpen(attributes);
        EXPECT_GE(fd, 1) << strerror(-fd);
        open_.push_back(fd);
        return fd;
    }
    int32_t OpenServer(const std::string& name, MuxaCallback callback, uint32_t maxPeers) {
        const int32_t fd = MuxaCreateServer({name, std::move(callback)}, maxPeers, 0);
        EXPECT_GE(fd, 1) << strerror(-fd);
        open_.push_back(fd);
        return fd;
    }
    int32_t Close(int32_t fd) {
        std::erase(open_, fd);
        return CloseWhenIdle(fd);
    }
    static int32_t CloseWhenIdle(int32_t fd) {
        int32_t result = MuxaClosePipe(fd);
        for (int i = 0; i < 4000 && result == -EBUSY; ++i) {
            std::this_thread::sleep_for(5ms);
            result = MuxaClosePipe(fd);
        }
        return result;
    }
    static int32_t Send(int32_t fd, const std::string& body) {
        MuxaRequest request;
        request.data = body.data();
        request.length = static_cast<uint32_t>(body.size());
        return MuxaSendRequest(fd, &request);
    }
    static int32_t Call(int32_t fd, const std::string& body, MuxaResponse& response,
                        std::optional<int32_t> timeout = std::nullopt) {
        MuxaRequest request;
        request.data = body.data();
        request.length = static_cast<uint32_t>(body.size());
        return timeout ? MuxaTimedRPCSync(fd, &request, &response, *timeout)
                       : MuxaRPCSync(fd, &request, &response);
    }

    Recorder recorder_;

private:
    static inline bool isPrivate_ = false;
    std::vector<int32_t> open_;
};

void IgnoreAll(int32_t /*fd*/, const MuxaRequest* /*request*/, const std::string& /*name*/) {}

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

TEST_F(MuxaTest, SocketFilesFollowTheContract) {
    const mode_t previous = umask(0077);
    const int32_t pipe = OpenPipe("Az_0.9-", IgnoreAll);
    const int32_t server = OpenServer("dp:/res/a b%\xC3\xA9", IgnoreAll, 1);
    umask(previous);
    for (const char* path : {"/run/muxa", "/run/muxa/pipe", "/run/muxa/server"}) {
        EXPECT_EQ(StatusOf(path).st_mode, mode_t{S_IFDIR | 0755}) << path;
    }
    EXPECT_EQ(StatusOf(PipePath("Az_0.9-")).st_mode, mode_t{S_IFSOCK | 0660});
    EXPECT_EQ(StatusOf(PipePath("Az_0.9-")).st_uid, 0U);
    EXPECT_EQ(StatusOf(PipePath("Az_0.9-")).st_gid, GROUP);
    const std::string escaped = ServerPath("dp%3A%2Fres%2Fa%20b%25%C3%A9");
    EXPECT_EQ(StatusOf(escaped).st_mode, mode_t{S_IFSOCK | 0666});
    EXPECT_EQ(Close(pipe), 0);
    EXPECT_EQ(Close(server), 0);
    EXPECT_NE(access(PipePath("Az_0.9-").c_str(), F_OK), 0);
    EXPECT_NE(access(escaped.c_str(), F_OK), 0);
}

TEST_F(MuxaTest, WrongArgumentsAreRefused) {
    const struct {
        std::string name;
        MuxaCallback callback;
        int32_t result;
    } cases[] = {
        {"", IgnoreAll, -EINVAL},          {"..", IgnoreAll, -EINVAL},
        {"no_callback", nullptr, -EINVAL}, {std::string(120, 'n'), IgnoreAll, -ENAMETOOLONG},
        {"taken", IgnoreAll, -EADDRINUSE},
    };
    const int32_t fd = OpenPipe("taken", IgnoreAll);
    for (const auto& row : cases) {
        EXPECT_EQ(MuxaOpen({.name = row.name, .callback = row.callback}), row.result) << row.name;
    }
    RawPeer peer(PipePath("taken"));
    EXPECT_EQ(peer.Error(), 0) << "the failed second opening must leave the first one alone";
    EXPECT_EQ(MuxaCreateServer({"s", IgnoreAll}, 1, 7), -EINVAL);
    EXPECT_EQ(MuxaCreateServer({"s", IgnoreAll}, 0, 0), -EINVAL);
    EXPECT_EQ(MuxaSendRequest(fd, nullptr), -EINVAL);
    EXPECT_EQ(Send(fd, std::string(65537, 'x')), -EMSGSIZE);

    EXPECT_EQ(Close(fd), 0);
    MuxaResponse response;
    for (const int32_t stale : {fd, 0, -1, 1 << 30}) {
        EXPECT_EQ(Send(stale, "x"), -EBADF) << stale;
        EXPECT_EQ(MuxaSendResponse(stale, &response), -EBADF) << stale;
        EXPECT_EQ(Call(stale, "x", response, 0), -EBADF) << stale;
        EXPECT_EQ(MuxaClosePipe(stale), -EBADF) << stale;
    }
    EXPECT_NE(OpenPipe("taken", IgnoreAll), fd) << "a closed name can be opened again";
}

TEST_F(MuxaTest, LeftOverSocketFileIsReplacedButAForeignOneIsKept) {
    const int32_t first = OpenPipe("replaced", IgnoreAll);
    // A file of an earlier process, in place before the pipe is opened.
    const int32_t helper = OpenPipe("other", IgnoreAll);
    ASSERT_EQ(rename(PipePath("replaced").c_str(), PipePath("left_over").c_str()), 0);
    OpenPipe("left_over", IgnoreAll);
    EXPECT_EQ(RawPeer(PipePath("left_over")).Error(), 0);
    // A file that another process has put in the place of ours stays when ours is closed.
    ASSERT_EQ(rename(PipePath("other").c_str(), PipePath("replaced").c_str()), 0);
    EXPECT_EQ(Close(first), 0);
    EXPECT_EQ(RawPeer(PipePath("replaced")).Error(), 0);
    EXPECT_EQ(Close(helper), 0);
}

TEST_F(MuxaTest, RequestsArriveInOrderAndWhole) {
    const int32_t fd = OpenPipe("in", recorder_.Callback());
    RawPeer peer(PipePath("in"));
    const std::vector<std::string> bodies = {"first", "", std::string(65536, '\xA5'), "last"};
    for (const std::string& body : bodies) {
        peer.Send(Packet(1, 0, body));
    }
    peer.Send(Packet(2, 0x1122334455667788, "question"));
    for (size_t i = 0; i < bodies.size(); ++i) {
        const Event event = recorder_.At(i);
        EXPECT_TRUE(event.body == bodies[i]) << i;
        EXPECT_FALSE(event.request.wantsResponse);
        EXPECT_EQ(event.fd, fd);
        EXPECT_EQ(event.name, "in");
        EXPECT_EQ(event.request.peerPid, getpid());
    }
    const Event question = recorder_.At(bodies.size());
    EXPECT_TRUE(question.request.wantsResponse);
    EXPECT_EQ(question.request.sequence, 0x1122334455667788U);
    ASSERT_EQ(MuxaSendResponse(fd, nullptr), -EINVAL);
    const MuxaResponse response{{'y', 'e', 's'}, question.request.sequence};
    ASSERT_EQ(MuxaSendResponse(fd, &response), 0);
    EXPECT_EQ(peer.Receive(), Packet(3, 0x1122334455667788, "yes"));
}

TEST_F(MuxaTest, RecordsWaitForAPeerUpToTheLimit) {
    const int32_t fd = OpenPipe("queue", recorder_.Callback());
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(Send(fd, "record " + std::to_string(i)), 0) << i;
    }
    EXPECT_EQ(Send(fd, "one too many"), -EAGAIN);
    const MuxaResponse response{{}, 1};
    EXPECT_EQ(MuxaSendResponse(fd, &response), -EPIPE) << "a response waits for nobody";

    RawPeer peer(PipePath("queue"));
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(peer.Receive(), Packet(1, 0, "record " + std::to_string(i)));
    }
    // A peer that does not read: the queue fills behind what the kernel holds, and nothing blocks.
    size_t sent = 0;
    const std::string filler(4000, 'f');
    while (Send(fd, std::to_string(sent) + filler) == 0) {
        ++sent;
    }
    EXPECT_GT(sent, 256U);
    EXPECT_EQ(Send(fd, filler), -EAGAIN);
    for (size_t i = 0; i < sent; ++i) {
        ASSERT_EQ(peer.Receive(), Packet(1, 0, std::to_string(i) + filler)) << i;
    }
    EXPECT_EQ(Send(fd, "again"), 0);
    EXPECT_EQ(peer.Receive(), Packet(1, 0, "again"));
}

TEST_F(MuxaTest, QueuedRecordsOutliveThePeerButResponsesDoNot) {
    const int32_t fd = OpenPipe("heir", recorder_.Callback());
    auto first = std::make_unique<RawPeer>(PipePath("heir"));
    first->Send(Packet(2, 9, "question"));
    recorder_.At(0);
    // Far more than the kernel takes on, so that the response and the record after it are queued.
    const std::string filler(60000, 'f');
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(Send(fd, filler), 0);
    }
    const MuxaResponse response{{'l', 'a', 't', 'e'}, 9};
    ASSERT_EQ(MuxaSendResponse(fd, &response), 0);
    ASSERT_EQ(Send(fd, "end"), 0);
    first.reset();
    EXPECT_TRUE(recorder_.At(1).isEnd);
    RawPeer second(PipePath("heir"));
    std::string packet = second.Receive();
    EXPECT_TRUE(packet == Packet(1, 0, filler));
    while (packet == Packet(1, 0, filler)) {
        packet = second.Receive();
    }
    EXPECT_EQ(packet, Packet(1, 0, "end"));
}

TEST_F(MuxaTest, BadPacketsEndTheConnectionOnce) {
    const struct {
        const char* what;
        std::string packet;
    } cases[] = {
        {"magic", Packet(1, 0, "x", "MUXB")},
        {"kind 0", Packet(0, 0, "x")},
        {"kind 4", Packet(4, 0, "x")},
        {"short", Packet(1, 0, "").substr(1)},
        {"one byte", "M"},
        {"empty", ""},
        {"oversize", Packet(1, 0, std::string(65537, 'x'))},
    };
    OpenPipe("strict", recorder_.Callback());
    size_t index = 0;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        RawPeer peer(PipePath("strict"));
        peer.Send(Packet(1, 0, row.what));
        peer.Send(row.packet);
        EXPECT_EQ(peer.Receive(), "");
        EXPECT_EQ(recorder_.At(index++).body, row.what);
        EXPECT_TRUE(recorder_.At(index++).isEnd);
    }
    RawPeer next(PipePath("strict"));
    next.Send(Packet(1, 0, "fine"));
    EXPECT_EQ(recorder_.At(index).body, "fine");
    EXPECT_EQ(recorder_.Count(), index + 1) << "each end is told once";
}

TEST_F(MuxaTest, PacketsSentBeforeTheEndAreStillDelivered) {
    std::promise<void> isGone;
    const auto record = recorder_.Callback();
    const int32_t fd =
        OpenPipe("hasty", [&](int32_t own, const MuxaRequest* request, const std::string& name) {
            record(own, request, name);
            if (recorder_.Count() == 1) {
                isGone.get_future().wait();
            }
        });
    {
        RawPeer peer(PipePath("hasty"));
        peer.Send(Packet(1, 0, "hello"));
        EXPECT_EQ(recorder_.At(0).body, "hello");
        // Leaves with this unread, which resets the connection.
        ASSERT_EQ(Send(fd, "unread"), 0);
        peer.Send(Packet(1, 0, "goodbye"));
    }
    isGone.set_value();
    EXPECT_EQ(recorder_.At(1).body, "goodbye");
    EXPECT_TRUE(recorder_.At(2).isEnd);
    RawPeer next(PipePath("hasty"));
    ASSERT_EQ(Send(fd, "for the next"), 0);
    EXPECT_EQ(next.Receive(), Packet(1, 0, "for the next"));
    EXPECT_EQ(recorder_.Count(), 3U);
    CloseAll();
}

// Runs `action` on a thread that has these credentials, by calls that act on the thread alone.
void RunAs(uid_t uid, gid_t gid, std::vector<gid_t> groups, const std::function<void()>& action) {
    std::thread([&] {
        ASSERT_EQ(syscall(SYS_setgroups, groups.size(), groups.data()), 0);
        ASSERT_EQ(syscall(SYS_setresgid, gid, gid, gid), 0);
        ASSERT_EQ(syscall(SYS_setresuid, uid, uid, uid), 0);
        action();
    }).join();
}

TEST_F(MuxaTest, CredentialsDecideWhoIsThePeer) {
    enum Outcome { SERVED, TURNED_AWAY, NO_ACCESS };
    const struct {
        uid_t uid;
        gid_t gid;
        std::vector<gid_t> groups;
        Outcome outcome;
    } cases[] = {
        {0, 77, {}, SERVED},
        {1000, GROUP, {}, SERVED},
        {1000, 77, {GROUP}, TURNED_AWAY},  // the file lets it in, its gid does not
        {1000, 77, {}, NO_ACCESS},
    };
    OpenPipe("guarded", recorder_.Callback());
    size_t index = 0;
    for (const auto& row : cases) {
        SCOPED_TRACE(std::to_string(row.uid) + ":" + std::to_string(row.gid));
        RunAs(row.uid, row.gid, row.groups, [&] {
            RawPeer peer(PipePath("guarded"));
            EXPECT_EQ(peer.Error(), row.outcome == NO_ACCESS ? EACCES : 0);
            if (row.outcome == TURNED_AWAY) {
                EXPECT_EQ(peer.Receive(), "");
            }
            if (row.outcome == SERVED) {
                peer.Send(Packet(1, 0, "hello"));
                const Event event = recorder_.At(index);
                EXPECT_EQ(event.request.peerUid, row.uid);
                EXPECT_EQ(event.request.peerGid, row.gid);
            }
        });
        if (row.outcome == SERVED) {
            EXPECT_TRUE(recorder_.At(index + 1).isEnd);
            index += 2;
        }
    }
    EXPECT_EQ(recorder_.Count(), index) << "who was not let in is not told of";
}

TEST_F(MuxaTest, SecondPeerWaitsForTheFirstToEnd) {
    const int32_t fd = OpenPipe("single", recorder_.Callback());
    RawPeer first(PipePath("single"));
    first.Send(Packet(1, 0, "first"));
    EXPECT_EQ(recorder_.At(0).body, "first");
    RawPeer second(PipePath("single"));
    second.Send(Packet(1, 0, "second"));
    ASSERT_EQ(Send(fd, "to the first"), 0);
    EXPECT_EQ(first.Receive(), Packet(1, 0, "to the first"));
    EXPECT_FALSE(second.HasInput());
    EXPECT_EQ(recorder_.Count(), 1U);
    first.Close();
    EXPECT_TRUE(recorder_.At(1).isEnd);
    EXPECT_EQ(recorder_.At(2).body, "second");
}

TEST_F(MuxaTest, BlockedCallbacksHoldUpOnlyTheirOwnPipe) {
    constexpr size_t BLOCKED = 12;
    std::latch allIn(BLOCKED);
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::vector<std::unique_ptr<RawPeer>> peers;
    std::array<std::atomic<int>, BLOCKED> calls{};
    std::vector<int32_t> pipes;
    for (size_t i = 0; i < BLOCKED; ++i) {
        const std::string name = "blocked" + std::to_string(i);
        const auto callback = [&, i, released](int32_t, const MuxaRequest* request,
                                               const std::string&) {
            if (request != nullptr && calls[i]++ == 0) {
                allIn.count_down();
                released.wait();
            }
        };
        pipes.push_back(OpenPipe(name, callback));
        peers.push_back(std::make_unique<RawPeer>(PipePath(name)));
        peers.back()->Send(Packet(1, 0, "one"));
        peers.back()->Send(Packet(1, 0, "two"));
    }
    allIn.wait();
    OpenPipe("free", recorder_.Callback());
    RawPeer peer(PipePath("free"));
    peer.Send(Packet(1, 0, "served"));
    EXPECT_EQ(recorder_.At(0).body, "served");
    // Nor is sending held up, by way of the queue, and that reads nothing meanwhile.
    const std::string filler(60000, 'f');
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(Send(pipes[0], filler), 0);
    }
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(peers[0]->Receive() == Packet(1, 0, filler));
    }
    for (size_t i = 0; i < BLOCKED; ++i) {
        EXPECT_EQ(calls[i], 1) << "a second request while the first one's callback runs";
    }
    release.set_value();
    for (size_t i = 0; i < BLOCKED; ++i) {
        peers[i]->Send(Packet(2, 1, "three"));
        while (calls[i] < 3) {
            std::this_thread::yield();
        }
    }
    CloseAll();
}

TEST_F(MuxaTest, CloseIsBusyWhileTheCallbackRunsAndFinalAfterwards) {
    std::promise<int32_t> closedInside;
    std::promise<void> release;
    std::atomic<int> calls = 0;
    const int32_t fd = OpenPipe("busy", [&](int32_t own, const MuxaRequest*, const std::string&) {
        if (calls++ == 0) {
            closedInside.set_value(MuxaClosePipe(own));
            release.get_future().wait();
        }
    });
    RawPeer peer(PipePath("busy"));
    peer.Send(Packet(1, 0, "one"));
    EXPECT_EQ(closedInside.get_future().get(), -EBUSY);
    EXPECT_EQ(MuxaClosePipe(fd), -EBUSY);
    // Sending does not depend on the callback.
    ASSERT_EQ(Send(fd, "meanwhile"), 0);
    EXPECT_EQ(peer.Receive(), Packet(1, 0, "meanwhile"));
    release.set_value();
    EXPECT_EQ(Close(fd), 0);
    const int atClose = calls;
    EXPECT_EQ(atClose, 1) << "closing is not the peer's end";
    EXPECT_EQ(peer.Receive(), "");
    RawPeer late(PipePath("busy"));
    EXPECT_EQ(late.Error(), ENOENT);
}

TEST_F(MuxaTest, NoCallbackComesAfterClose) {
    std::atomic<bool> isClosed = false;
    std::atomic<int> late = 0;
    for (int round = 0; round < 200; ++round) {
        isClosed = false;
        const auto callback = [&](int32_t, const MuxaRequest*, const std::string&) {
            late += isClosed ? 1 : 0;
        };
        const int32_t fd = OpenPipe("race", callback);
        RawPeer peer(PipePath("race"));
        peer.Send(Packet(1, 0, "one"));
        peer.Send(Packet(1, 0, "two"));
        peer.Close();
        ASSERT_EQ(Close(fd), 0);
        isClosed = true;
    }
    EXPECT_EQ(late, 0);
}

TEST_F(MuxaTest, CallsWaitForTheResponseOfTheirSequence) {
    const int32_t fd = OpenPipe("rpc", recorder_.Callback());
    MuxaResponse response;
    EXPECT_EQ(Call(fd, "nobody hears this", response, 1), -ETIMEDOUT);
    RawPeer peer(PipePath("rpc"));
    peer.Send(Packet(1, 0, "here"));
    EXPECT_EQ(recorder_.At(0).body, "here");
    EXPECT_EQ(Call(fd, "ignored", response, 1), -ETIMEDOUT);
    EXPECT_EQ(Call(fd, "x", response, -1), -EINVAL);
    const std::string ignored = peer.Receive();
    EXPECT_EQ(ignored.substr(16), "ignored") << "a call that timed out in the queue is withdrawn";
    auto answered = std::async(std::launch::async, [&] { return Call(fd, "ask", response); });
    const std::string question = peer.Receive();
    ASSERT_EQ(question.size(), 19U);
    EXPECT_EQ(question.substr(0, 8), Packet(2, 0, "").substr(0, 8));
    const std::string sequence = question.substr(8, 8);
    EXPECT_NE(sequence, ignored.substr(8, 8));
    const std::string head = Packet(3, 0, "").substr(0, 8);
    peer.Send(head + ignored.substr(8, 8) + "too late");
    peer.Send(Packet(1, 0, "between"));
    peer.Send(head + sequence + "answer");
    EXPECT_EQ(answered.get(), 0);
    EXPECT_EQ(std::string(response.data.begin(), response.data.end()), "answer");
    EXPECT_EQ(recorder_.At(1).body, "between");

    auto orphaned = std::async(std::launch::async, [&] { return Call(fd, "ask", response); });
    EXPECT_EQ(peer.Receive().substr(16), "ask");
    peer.Close();
    EXPECT_EQ(orphaned.get(), -EPIPE);
    EXPECT_TRUE(recorder_.At(2).isEnd);
    std::promise<void> isWaiting;
    auto closed = std::async(std::launch::async, [&] {
        isWaiting.set_value();
        return Call(fd, "ask", response, 20000);
    });
    isWaiting.get_future().wait();
    EXPECT_EQ(Close(fd), 0);
    EXPECT_EQ(closed.get(), -EBADF);
}

// More callbacks wait for a response than there may be workers, and the workers that read the
// responses must still be found.
TEST_F(MuxaTest, CallsFromCallbacksDoNotStarveEachOther) {
    constexpr size_t CALLERS = 40;
    std::latch finished(CALLERS);
    std::vector<int32_t> results(CALLERS, 1);
    std::vector<int32_t> ownResults(CALLERS, 1);
    std::vector<int32_t> targets;
    std::vector<std::unique_ptr<RawPeer>> callers;
    std::vector<std::unique_ptr<RawPeer>> answerers;
    for (size_t i = 0; i < CALLERS; ++i) {
        const std::string target = "target" + std::to_string(i);
        targets.push_back(OpenPipe(target, IgnoreAll));
        answerers.push_back(std::make_unique<RawPeer>(PipePath(target)));
    }
    for (size_t i = 0; i < CALLERS; ++i) {
        const std::string name = "caller" + std::to_string(i);
        OpenPipe(name, [&, i](int32_t own, const MuxaRequest* request, const std::string&) {
            if (request != nullptr) {
                MuxaResponse response;
                ownResults[i] = Call(own, "myself", response);
                results[i] = Call(targets[i], "ask", response, 20000);
                finished.count_down();
            }
        });
        callers.push_back(std::make_unique<RawPeer>(PipePath(name)));
        callers.back()->Send(Packet(1, 0, "go"));
    }
    // Nobody is answered before everybody has asked.
    std::vector<std::string> sequences;
    sequences.reserve(CALLERS);
    for (const auto& answerer : answerers) {
        sequences.push_back(answerer->Receive().substr(8, 8));
    }
    for (size_t i = 0; i < CALLERS; ++i) {
        answerers[i]->Send(Packet(3, 0, "").substr(0, 8) + sequences[i]);
    }
    finished.wait();
    EXPECT_EQ(results, std::vector<int32_t>(CALLERS, 0));
    EXPECT_EQ(ownResults, std::vector<int32_t>(CALLERS, -EDEADLK));
    CloseAll();
}

TEST_F(MuxaTest, ServerTellsItsPeersApart) {
    const int32_t server = OpenServer("many", recorder_.Callback(), 2);
    auto first = std::make_unique<RawPeer>(ServerPath("many"));
    first->Send(Packet(1, 0, "first"));
    const int32_t firstFd = recorder_.At(0).fd;
    RawPeer second(ServerPath("many"));
    second.Send(Packet(2, 5, "second"));
    const int32_t secondFd = recorder_.At(1).fd;
    EXPECT_NE(firstFd, secondFd);
    EXPECT_NE(firstFd, server);
    EXPECT_NE(secondFd, server);
    const MuxaResponse response{{'o', 'k'}, 5};
    EXPECT_EQ(MuxaSendResponse(secondFd, &response), 0);
    EXPECT_EQ(Send(firstFd, "to the first"), 0);
    EXPECT_EQ(Send(server, "to whom?"), -EBADF);
    EXPECT_EQ(second.Receive(), Packet(3, 5, "ok"));
    EXPECT_EQ(first->Receive(), Packet(1, 0, "to the first"));

    // The third has to wait for a place, whoever it is.
    std::unique_ptr<RawPeer> third;
    RunAs(1000, 1000, {}, [&] { third = std::make_unique<RawPeer>(ServerPath("many")); });
    third->Send(Packet(1, 0, "third"));
    first.reset();
    const Event end = recorder_.At(2);
    EXPECT_TRUE(end.isEnd);
    EXPECT_EQ(end.fd, firstFd);
    const Event served = recorder_.At(3);
    EXPECT_EQ(served.body, "third");
    EXPECT_EQ(served.request.peerUid, 1000U);
    EXPECT_EQ(Send(firstFd, "gone"), -EBADF);
    // Sent away by the server: no end is told, and the others stay.
    EXPECT_EQ(CloseWhenIdle(served.fd), 0);
    EXPECT_EQ(third->Receive(), "");
    EXPECT_EQ(Close(server), 0);
    EXPECT_EQ(second.Receive(), "");
    EXPECT_EQ(recorder_.Count(), 4U);
    EXPECT_EQ(Send(secondFd, "gone"), -EBADF);
}

std::string FieldOfThread(const std::string& tid, const std::string& field) {
    std::ifstream status("/proc/self/task/" + tid + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field + ":\t")) {
            return line.substr(field.size() + 2);
        }
    }
    return "";
}

std::vector<std::string> Entries(const char* directory) {
    std::vector<std::string> entries;
    DIR* opened = opendir(directory);
    while (const dirent* entry = readdir(opened)) {
        if (entry->d_name[0] != '.') {
            entries.emplace_back(entry->d_name);
        }
    }
    closedir(opened);
    return entries;
}

TEST_F(MuxaTest, WorkersTakeNoSignalsAndDescriptorsAreCloseOnExec) {
    OpenPipe("hygiene", recorder_.Callback());
    RawPeer peer(PipePath("hygiene"));
    peer.Send(Packet(1, 0, "hello"));
    EXPECT_EQ(recorder_.At(0).body, "hello");
    size_t workers = 0;
    for (const std::string& tid : Entries("/proc/self/task")) {
        if (FieldOfThread(tid, "Name") == "muxa") {
            ++workers;
            // All but those that cannot be blocked, or that the C library keeps.
            const auto blocked = std::stoull(FieldOfThread(tid, "SigBlk"), nullptr, 16);
            for (const int signal : {SIGTERM, SIGCONT, SIGCHLD, SIGINT, SIGPIPE, SIGUSR1}) {
                EXPECT_NE(blocked & (1ULL << (signal - 1)), 0U) << signal;
            }
        }
    }
    EXPECT_GE(workers, 1U);
    sigset_t own;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &own), 0);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0);
    size_t sockets = 0;
    for (const std::string& fd : Entries("/proc/self/fd")) {
        const int number = std::stoi(fd);
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(number, SOL_SOCKET, SO_TYPE, &type, &length) == 0 &&
            type == SOCK_SEQPACKET) {
            ++sockets;
            EXPECT_NE(fcntl(number, F_GETFD) & FD_CLOEXEC, 0) << fd;
        }
    }
    EXPECT_EQ(sockets, 3U);
}

// A socket that stays ready for something that is not to be done now must not be polled for it.
TEST_F(MuxaTest, WaitingCostsNoProcessorTime) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::promise<void> isInside;
    const int32_t full = OpenPipe("full", recorder_.Callback());
    RawPeer silent(PipePath("full"));
    silent.Send(Packet(1, 0, "here"));
    EXPECT_EQ(recorder_.At(0).body, "here");
    RawPeer waiting(PipePath("full"));
    while (Send(full, std::string(60000, 'f')) == 0) {
    }
    const int32_t blocked =
        OpenPipe("hung_up", [&, released](int32_t, const MuxaRequest* request, const std::string&) {
            if (request != nullptr) {
                isInside.set_value();
                released.wait();
            }
        });
    auto gone = std::make_unique<RawPeer>(PipePath("hung_up"));
    gone->Send(Packet(1, 0, "block"));
    isInside.get_future().wait();
    while (Send(blocked, std::string(60000, 'f')) == 0) {
    }
    gone.reset();
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
    release.set_value();
    CloseAll();
}

TEST_F(MuxaTest, ConnectionsAreServedOnceDescriptorsAreFreeAgain) {
    OpenServer("scarce", recorder_.Callback(), 10);
    rlimit previous{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &previous), 0);
    const int lowestFree = dup(0);
    close(lowestFree);
    // Room for the peer's own socket and none for the library's.
    const rlimit scarce{static_cast<rlim_t>(lowestFree) + 1, previous.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &scarce), 0);
    RawPeer peer(ServerPath("scarce"));
    peer.Send(Packet(1, 0, "patient"));
    EXPECT_EQ(dup(0), -1);
    EXPECT_EQ(recorder_.Count(), 0U);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &previous), 0);
    EXPECT_EQ(recorder_.At(0).body, "patient");
}

}  // namespace
