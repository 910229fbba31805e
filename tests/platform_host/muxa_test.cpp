// The messaging library against peers that speak its packets byte by byte over plain sockets.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/messaging.h"
#include "tests/support/private_run.h"

namespace {

using namespace std::chrono_literals;

// Longer than anything takes that is going to happen at all.
constexpr auto PATIENCE = 20s;
constexpr uint32_t GROUP = 4321;
const std::string LARGE(60000, 'f');

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

// A response to the call that came in `question`.
std::string Answer(const std::string& question, const std::string& body) {
    return Packet(3, 0, "").substr(0, 8) + question.substr(8, 8) + body;
}

std::string PipePath(const std::string& name) {
    return "/run/muxa/pipe/" + name;
}
std::string ServerPath(const std::string& name) {
    return "/run/muxa/server/" + name;
}

// A peer on a plain socket.
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
    void Close() { close(std::exchange(fd_, -1)); }
    void Send(const std::string& packet) const {
        ASSERT_EQ(TrySend(packet), static_cast<ssize_t>(packet.size()));
    }
    ssize_t TrySend(const std::string& packet) const {
        return send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL);
    }
    // The next packet; "" stands for the end of the connection.
    std::string Receive() const {
        std::string packet(70000, '\0');
        const ssize_t length = recv(fd_, packet.data(), packet.size(), 0);
        if (length < 0) {
            return errno == ECONNRESET ? "" : strerror(errno);
        }
        return packet.substr(0, static_cast<size_t>(length));
    }

private:
    int fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    int error_ = 0;
};

struct Event {
    int32_t fd = 0;
    std::string name;
    std::string body;  // "END" for the peer's end
    MuxaRequest request;
};

// Collects what a callback is told.
class Recorder {
public:
    void operator()(int32_t fd, const MuxaRequest* request, const std::string& name) {
        Event event{fd, name, "END", {}};
        if (request != nullptr) {
            event.body.assign(static_cast<const char*>(request->data), request->length);
            event.request = *request;
        }
        const std::lock_guard guard(lock_);
        events_.push_back(event);
        changed_.notify_all();
    }
    // The event at `index`, waiting for it.
    Event At(size_t index) {
        std::unique_lock guard(lock_);
        const bool isThere =
            changed_.wait_for(guard, PATIENCE, [&] { return events_.size() > index; });
        return isThere ? events_[index] : Event{0, "timeout", "timeout", {}};
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

// Sends a call where there is a place for its response.
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

class MuxaTest : public PrivateRunTest {
protected:
    void TearDown() override { CloseAll(); }
    // Before anything that the callbacks refer to goes out of scope.
    void CloseAll() {
        for (const int32_t fd : open_) {
            EXPECT_EQ(CloseWhenIdle(fd), 0);
        }
        open_.clear();
    }
    int32_t Keep(int32_t fd) {
        EXPECT_GE(fd, 1) << strerror(-fd);
        return open_.emplace_back(fd);
    }
    int32_t OpenPipe(const std::string& name, MuxaCallback callback, pid_t pid = getpid()) {
        return Keep(
            MuxaOpen({.name = name, .value = GROUP, .pid = pid, .callback = std::move(callback)}));
    }
    // A pipe, or a server, that tells the recorder.
    int32_t OpenPipe(const std::string& name) { return OpenPipe(name, std::ref(recorder_)); }
    int32_t OpenServer(const std::string& name, uint32_t maxPeers) {
        return Keep(MuxaCreateServer({name, std::ref(recorder_)}, maxPeers, 0));
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

    Recorder recorder_;

private:
    std::vector<int32_t> open_;
};

TEST_F(MuxaTest, SocketFilesFollowTheContract) {
    const mode_t previous = umask(0077);
    const int32_t pipe = OpenPipe("Az_0.9-");
    const int32_t server = OpenServer("dp:/res/a b%\xC3\xA9", 1);
    umask(previous);
    const std::string escaped = ServerPath("dp%3A%2Fres%2Fa%20b%25%C3%A9");
    const struct {
        std::string path;
        mode_t mode;
        gid_t group;
    } files[] = {
        {"/run/muxa/pipe", S_IFDIR | 0755, 0},
        {PipePath("Az_0.9-"), S_IFSOCK | 0660, GROUP},
        {escaped, S_IFSOCK | 0666, getegid()},
    };
    for (const auto& [path, mode, group] : files) {
        struct stat status {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_mode, mode) << path;
        EXPECT_EQ(status.st_gid, group) << path;
    }
    EXPECT_EQ(Close(pipe), 0);
    EXPECT_EQ(Close(server), 0);
    EXPECT_NE(access(PipePath("Az_0.9-").c_str(), F_OK), 0);
    EXPECT_NE(access(escaped.c_str(), F_OK), 0);

    // A file that an earlier process has left behind is no obstacle.
    OpenPipe("first");
    ASSERT_EQ(rename(PipePath("first").c_str(), PipePath("left_over").c_str()), 0);
    OpenPipe("left_over");
    EXPECT_EQ(RawPeer(PipePath("left_over")).Error(), 0);
}

TEST_F(MuxaTest, WrongArgumentsAreRefused) {
    const int32_t fd = OpenPipe("taken");
    const std::pair<std::string, int32_t> cases[] = {{"", -EINVAL},
                                                     {"..", -EINVAL},
                                                     {std::string(120, 'n'), -ENAMETOOLONG},
                                                     {"taken", -EADDRINUSE}};
    for (const auto& [name, result] : cases) {
        EXPECT_EQ(MuxaOpen({.name = name, .callback = std::ref(recorder_)}), result) << name;
    }
    EXPECT_EQ(MuxaOpen({.name = "no_callback", .callback = nullptr}), -EINVAL);
    EXPECT_EQ(RawPeer(PipePath("taken")).Error(), 0) << "the first opening is left alone";
    EXPECT_EQ(Send(fd, std::string(65537, 'x')), -EMSGSIZE);
    EXPECT_EQ(Close(fd), 0);
    MuxaResponse response;
    for (const int32_t stale : {fd, 0, -1, 1 << 30}) {
        EXPECT_EQ(Send(stale, "x"), -EBADF) << stale;
        EXPECT_EQ(Respond(stale, 1, "x"), -EBADF) << stale;
        EXPECT_EQ(Send(stale, "x", &response), -EBADF) << stale;
        EXPECT_EQ(MuxaClosePipe(stale), -EBADF) << stale;
    }
    EXPECT_NE(OpenPipe("taken"), fd) << "a stale descriptor must not reach the next pipe";
}

TEST_F(MuxaTest, RequestsArriveInOrderAndWhole) {
    const int32_t fd = OpenPipe("in");
    RawPeer peer(PipePath("in"));
    const std::vector<std::string> bodies = {"", std::string(65536, '\xA5'), "last"};
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
    ASSERT_EQ(Respond(fd, question.request.sequence, "yes"), 0);
    EXPECT_EQ(peer.Receive(), Packet(3, 0x1122334455667788, "yes"));
}

TEST_F(MuxaTest, RecordsWaitForAPeerUpToTheLimit) {
    const int32_t fd = OpenPipe("queue");
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(Send(fd, "record " + std::to_string(i)), 0) << i;
    }
    EXPECT_EQ(Send(fd, "one too many"), -EAGAIN);
    EXPECT_EQ(Respond(fd, 1, ""), -EPIPE) << "a response waits for nobody";

    RawPeer peer(PipePath("queue"));
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(peer.Receive(), Packet(1, 0, "record " + std::to_string(i)));
    }
    // A peer that does not read: the queue fills behind what the kernel holds, and nothing blocks.
    size_t sent = 0;
    while (Send(fd, std::to_string(sent) + LARGE) == 0) {
        ++sent;
    }
    for (size_t i = 0; i < sent; ++i) {
        ASSERT_TRUE(peer.Receive() == Packet(1, 0, std::to_string(i) + LARGE)) << i;
    }
}

TEST_F(MuxaTest, TheNextPeerInheritsRecordsButNoResponses) {
    const int32_t fd = OpenPipe("heir");
    RawPeer first(PipePath("heir"));
    first.Send(Packet(2, 9, "question"));
    EXPECT_EQ(recorder_.At(0).body, "question");
    RawPeer second(PipePath("heir"));
    second.Send(Packet(1, 0, "second"));
    const RawPeer more[] = {RawPeer(PipePath("heir")), RawPeer(PipePath("heir")),
                            RawPeer(PipePath("heir"))};
    EXPECT_EQ(RawPeer(PipePath("heir")).Receive(), "") << "four may wait";
    // Far more than the kernel takes on, so that the response and the record after it are queued.
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(Send(fd, LARGE), 0);
    }
    ASSERT_EQ(Respond(fd, 9, "late"), 0);
    ASSERT_EQ(Send(fd, "end"), 0);
    EXPECT_EQ(recorder_.Count(), 1U) << "one peer at a time";
    // To leave with so much unread resets the connection; what was sent before counts all the same.
    first.Send(Packet(1, 0, "goodbye"));
    first.Close();
    EXPECT_EQ(recorder_.At(1).body, "goodbye");
    EXPECT_EQ(recorder_.At(2).body, "END");
    EXPECT_EQ(recorder_.At(3).body, "second");
    std::string packet = second.Receive();
    EXPECT_TRUE(packet == Packet(1, 0, LARGE));
    while (packet == Packet(1, 0, LARGE)) {
        packet = second.Receive();
    }
    EXPECT_EQ(packet, Packet(1, 0, "end"));
}

TEST_F(MuxaTest, BadPacketsEndTheConnectionOnce) {
    const std::pair<const char*, std::string> cases[] = {
        {"magic", Packet(1, 0, "x", "MUXB")},
        {"kind 0", Packet(0, 0, "x")},
        {"kind 4", Packet(4, 0, "x")},
        {"short", Packet(1, 0, "").substr(1)},
        {"empty", ""},
        {"oversize", Packet(1, 0, std::string(65537, 'x'))},
    };
    OpenPipe("strict");
    size_t index = 0;
    for (const auto& [what, packet] : cases) {
        SCOPED_TRACE(what);
        RawPeer peer(PipePath("strict"));
        peer.Send(Packet(1, 0, what));
        peer.Send(packet);
        EXPECT_EQ(peer.Receive(), "");
        EXPECT_EQ(recorder_.At(index++).body, what);
        EXPECT_EQ(recorder_.At(index++).body, "END");
    }
    RawPeer next(PipePath("strict"));
    next.Send(Packet(1, 0, "fine"));
    EXPECT_EQ(recorder_.At(index).body, "fine");
    EXPECT_EQ(recorder_.Count(), index + 1) << "each end is told once";
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

// Runs `action` in a process of uid 1000 that has the pipes' group, and a name that looks like the
// status of another process; returns whether it succeeded.
bool SucceedsInAnotherProcess(const std::function<bool()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        const bool isReady = prctl(PR_SET_NAME, "a) S 1 (b") == 0 &&
                             setresgid(GROUP, GROUP, GROUP) == 0 &&
                             setresuid(1000, 1000, 1000) == 0;
        _exit(isReady && action() ? 0 : 1);
    }
    int status = 1;
    return waitpid(child, &status, 0) == child && status == 0;
}

TEST_F(MuxaTest, APipeIsForItsServiceAndItsDescendants) {
    const pid_t other = fork();
    if (other == 0) {
        raise(SIGSTOP);
    }
    const auto answer = [this](int32_t fd, const MuxaRequest* request, const std::string& name) {
        if (request != nullptr) {
            Respond(fd, request->sequence, "yes");
        }
        recorder_(fd, request, name);
    };
    OpenPipe("own", answer);
    OpenPipe("others", answer, other);
    OpenPipe("roots", answer, 0);
    RawPeer root(PipePath("others"));  // holds its pipe, and only its own
    for (const std::string name : {"own", "others", "roots"}) {
        EXPECT_TRUE(SucceedsInAnotherProcess([name] {
            const RawPeer peer(PipePath(name));
            peer.TrySend(Packet(2, 7, "hello"));
            return peer.Error() == 0 &&
                   peer.Receive() == (name == "own" ? Packet(3, 7, "yes") : "");
        })) << name;
    }
    EXPECT_EQ(recorder_.At(0).request.peerUid, 1000U);
    EXPECT_EQ(recorder_.At(0).request.peerGid, GROUP);
    EXPECT_EQ(recorder_.At(1).body, "END");
    root.Send(Packet(2, 8, "still there"));
    EXPECT_EQ(root.Receive(), Packet(3, 8, "yes"));
    EXPECT_EQ(recorder_.Count(), 3U) << "who was not let in is not told of";
    kill(other, SIGKILL);
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    CloseAll();
}

void FloodUntil(const std::atomic<bool>& isOver) {
    while (!isOver) {
        const RawPeer peer(ServerPath("flooded"));
        for (int i = 0; i < 10; ++i) {
            peer.TrySend(Packet(1, 0, "x"));
        }
    }
}

TEST_F(MuxaTest, ClosingWinsAgainstAFlood) {
    const int32_t server = Keep(MuxaCreateServer(
        {"flooded",
         [](int32_t, const MuxaRequest*, const std::string&) { std::this_thread::sleep_for(5ms); }},
        64, 0));
    std::atomic<bool> isOver = false;
    std::vector<std::thread> floods;
    for (int i = 0; i < 4; ++i) {
        floods.emplace_back([&isOver] { FloodUntil(isOver); });
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(MuxaClosePipe(server), -EBUSY) << "the flood is no flood";
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(Close(server), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    isOver = true;
    for (std::thread& flood : floods) {
        flood.join();
    }
}

TEST_F(MuxaTest, OneUserOrOnePeerTakesOnlySoMuchOfAServer) {
    OpenServer("shared", 100);
    std::deque<RawPeer> silent;
    RunAs(1000, 1000, {}, [&] {
        for (int i = 0; i < 32; ++i) {
            silent.emplace_back(ServerPath("shared"));
        }
        EXPECT_EQ(RawPeer(ServerPath("shared")).Receive(), "");
    });
    const auto before = std::chrono::steady_clock::now();
    RawPeer peer(ServerPath("shared"));
    std::this_thread::sleep_for(2s);
    peer.Send(Packet(2, 1, "ask"));
    const int32_t fd = recorder_.At(0).fd;
    // What the kernel holds, and 16 behind it.
    int answers = 0;
    while (answers < 100 && Respond(fd, 1, LARGE) == 0) {
        ++answers;
    }
    EXPECT_LT(answers, 30);
    EXPECT_EQ(Respond(fd, 1, LARGE), -EAGAIN);
    EXPECT_EQ(silent.back().Receive(), "");
    EXPECT_GE(std::chrono::steady_clock::now() - before, 4s);
    EXPECT_EQ(recorder_.At(32).body, "END") << "the end of a silent peer is told";
    for (int i = 0; i < answers; ++i) {
        ASSERT_TRUE(peer.Receive() == Packet(3, 1, LARGE)) << "who has asked later stays longer";
    }
    EXPECT_EQ(peer.Receive(), "");
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
    peer.Send(Packet(1, 0, "two"));
    EXPECT_EQ(closedInside.get_future().get(), -EBUSY);
    EXPECT_EQ(MuxaClosePipe(fd), -EBUSY);
    release.set_value();
    EXPECT_EQ(Close(fd), 0);
    const int atClose = calls;
    EXPECT_EQ(peer.Receive(), "");
    EXPECT_EQ(RawPeer(PipePath("busy")).Error(), ENOENT);
    EXPECT_EQ(calls, atClose) << "no callback comes after the close";
}

TEST_F(MuxaTest, CallsWaitForTheResponseOfTheirSequence) {
    const int32_t fd = OpenPipe("rpc");
    MuxaResponse response;
    EXPECT_EQ(Send(fd, "nobody hears this", &response, 1), -ETIMEDOUT);
    RawPeer peer(PipePath("rpc"));
    peer.Send(Packet(1, 0, "here"));
    EXPECT_EQ(recorder_.At(0).body, "here");
    EXPECT_EQ(Send(fd, "ignored", &response, 1), -ETIMEDOUT);
    const std::string ignored = peer.Receive();
    EXPECT_EQ(ignored.substr(16), "ignored") << "a call that timed out in the queue is withdrawn";

    auto answered =
        std::async(std::launch::async, [&] { return Send(fd, "ask", &response, 20000); });
    const std::string question = peer.Receive();
    EXPECT_EQ(question, Packet(2, 0, "").substr(0, 8) + question.substr(8, 8) + "ask");
    EXPECT_NE(question.substr(8, 8), ignored.substr(8, 8));
    peer.Send(Answer(ignored, "too late"));
    peer.Send(Packet(1, 0, "between"));
    peer.Send(Answer(question, "answer"));
    EXPECT_EQ(answered.get(), 0);
    EXPECT_EQ(std::string(response.data.begin(), response.data.end()), "answer");
    EXPECT_EQ(recorder_.At(1).body, "between");

    auto orphaned =
        std::async(std::launch::async, [&] { return Send(fd, "ask", &response, 20000); });
    EXPECT_EQ(peer.Receive().substr(16), "ask");
    peer.Close();
    EXPECT_EQ(orphaned.get(), -EPIPE);
}

TEST_F(MuxaTest, BlockedCallbacksHoldUpOnlyTheirOwnPipe) {
    constexpr int BLOCKED = 12;  // more than the workers at the start
    std::atomic<int> calls = 0;
    std::latch allIn(BLOCKED);
    std::latch released(1);
    std::deque<RawPeer> peers;
    for (int i = 0; i < BLOCKED; ++i) {
        const std::string name = "blocked" + std::to_string(i);
        OpenPipe(name, [&](int32_t, const MuxaRequest*, const std::string&) {
            if (calls++ < BLOCKED) {
                allIn.count_down();
            }
            released.wait();
        });
        peers.emplace_back(PipePath(name));
        peers.back().Send(Packet(1, 0, "one"));
        peers.back().Send(Packet(1, 0, "two"));
    }
    allIn.wait();
    OpenPipe("free");
    RawPeer peer(PipePath("free"));
    peer.Send(Packet(1, 0, "served"));
    EXPECT_EQ(recorder_.At(0).body, "served");
    EXPECT_EQ(calls, BLOCKED) << "a second request waits for the first one's callback";
    released.count_down();
    CloseAll();
}

TEST_F(MuxaTest, ServerTellsItsPeersApart) {
    const int32_t server = OpenServer("many", 2);
    RawPeer first(ServerPath("many"));
    first.Send(Packet(1, 0, "first"));
    const int32_t firstFd = recorder_.At(0).fd;
    RawPeer second(ServerPath("many"));
    second.Send(Packet(2, 5, "second"));
    const int32_t secondFd = recorder_.At(1).fd;
    EXPECT_EQ(Respond(secondFd, 5, "ok"), 0);
    EXPECT_EQ(Send(firstFd, "to the first"), 0);
    EXPECT_EQ(Send(server, "to whom?"), -EBADF);
    EXPECT_EQ(second.Receive(), Packet(3, 5, "ok"));
    EXPECT_EQ(first.Receive(), Packet(1, 0, "to the first"));

    // The third has to wait for a place, whoever it is.
    std::unique_ptr<RawPeer> third;
    RunAs(1000, 1000, {}, [&] { third = std::make_unique<RawPeer>(ServerPath("many")); });
    third->Send(Packet(1, 0, "third"));
    first.Close();
    EXPECT_EQ(recorder_.At(2).body, "END");
    EXPECT_EQ(recorder_.At(2).fd, firstFd);
    EXPECT_EQ(recorder_.At(3).body, "third");
    EXPECT_EQ(Send(firstFd, "gone"), -EBADF);
    // Sent away by the server: no end is told, and the others stay.
    EXPECT_EQ(CloseWhenIdle(recorder_.At(3).fd), 0);
    EXPECT_EQ(third->Receive(), "");
    EXPECT_EQ(Send(secondFd, "still there"), 0);
    EXPECT_EQ(Close(server), 0);
    EXPECT_EQ(second.Receive(), Packet(1, 0, "still there"));
    EXPECT_EQ(second.Receive(), "");
    EXPECT_EQ(recorder_.Count(), 4U);
}

TEST_F(MuxaTest, WorkersTakeNoSignalsAndDescriptorsAreCloseOnExec) {
    OpenPipe("hygiene");
    RawPeer peer(PipePath("hygiene"));
    peer.Send(Packet(1, 0, "hello"));
    EXPECT_EQ(recorder_.At(0).body, "hello");
    // Blocked in this thread it is pending, unless a worker takes it and the process dies.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
    ASSERT_EQ(kill(getpid(), SIGTERM), 0);
    EXPECT_EQ(sigwaitinfo(&signals, nullptr), SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    size_t sockets = 0;
    for (int fd = 0; fd < 100; ++fd) {
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_SEQPACKET) {
            ++sockets;
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
        }
    }
    EXPECT_EQ(sockets, 3U);
}

}  // namespace
