// An owner's channel against a daemon's end made of plain sockets, under a /run of its own.
#include "agent/owner_channel.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>

#include "message/record_codec.h"
#include "message/request_codec.h"
#include "tests/support/private_run.h"
#include "wire/packet.h"

namespace ProcMgr::Agent {
namespace {

using namespace std::chrono_literals;
using Message::AppStateInfo;
using std::chrono::steady_clock;
using testing::ElementsAre;
using Wire::PACKET_HEADER_SIZE;
using Wire::PACKET_MAX;
using Wire::PacketHeader;
using Wire::PacketKind;
using Wire::UniqueFd;

constexpr const char* NAME = "owner";
const std::string DIRECTORY = "/run/muxa/pipe/";
constexpr const char* HEARTBEAT = "/run/heartbeat.sock";
constexpr auto PATIENCE = 10s;

// One packet as bytes.
std::vector<uint8_t> Encode(const PacketHeader& header, std::span<const uint8_t> body) {
    std::vector<uint8_t> packet(PACKET_HEADER_SIZE + body.size());
    Wire::EncodePacketHeader(header, std::span(packet).first<PACKET_HEADER_SIZE>());
    std::copy(body.begin(), body.end(), packet.begin() + PACKET_HEADER_SIZE);
    return packet;
}

UniqueFd Bind(int type, const char* path) {
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    unlink(path);
    EXPECT_EQ(bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0) << path;
    return fd;
}

bool IsReadable(int fd, std::chrono::milliseconds timeout = PATIENCE) {
    pollfd waited{fd, POLLIN, 0};
    return poll(&waited, 1, static_cast<int>(timeout.count())) == 1;
}

// The daemon's end of the pipe, one peer at a time.
class Daemon {
public:
    explicit Daemon(const std::string& name = NAME)
        : listener_(Bind(SOCK_SEQPACKET, (DIRECTORY + name).c_str())) {
        EXPECT_EQ(listen(listener_.Get(), 4), 0);
    }

    void Accept() {
        ASSERT_TRUE(IsReadable(listener_.Get()));
        peer_ = UniqueFd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_TRUE(peer_.IsValid());
    }
    // The next packet; empty when there is none or the peer has gone.
    std::vector<uint8_t> Receive(std::chrono::milliseconds timeout = PATIENCE) {
        std::vector<uint8_t> bytes(PACKET_MAX + 1);
        const ssize_t length =
            IsReadable(peer_.Get(), timeout) ? recv(peer_.Get(), bytes.data(), bytes.size(), 0) : 0;
        bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
        return bytes;
    }
    void Send(std::span<const uint8_t> bytes) {
        ASSERT_EQ(send(peer_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    void SendText(Message::RequestType type, std::string_view text,
                  PacketKind kind = PacketKind::REQUEST) {
        Send(Encode({kind, 0}, Message::EncodeRecord(Message::MakeRecord(type, text))));
    }

private:
    UniqueFd listener_;
    UniqueFd peer_;
};

std::vector<uint8_t> StateReport(char state) {
    return Encode({}, Message::EncodeRecord(Message::EncodeStateReport(
                          static_cast<BaseServiceStateType>(state - '0'))));
}

// Type and payload of a packet that carries one record, as "type:payload".
std::string Told(const std::vector<uint8_t>& bytes) {
    const auto packet = Wire::DecodePacket(bytes);
    const auto record = packet ? Message::DecodeRecord(packet->body) : std::nullopt;
    return record ? std::to_string(record->type) + ':' + std::string(Message::PayloadOf(*record))
                  : "none";
}

// A query for one name of one letter, and its answer.
std::string Asked(char name) {
    return std::string("9:\1\0\0\0\1\0\0\0", 10) + name;
}

std::string Answer(char name, char status) {
    return std::string("\1\0\0\0\1\0\0\0", 8) + name + status + std::string(3, '\0');
}

size_t CountCloseOnExec() {
    size_t count = 0;
    for (int fd = 3; fd < 100; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        count += flags >= 0 && (flags & FD_CLOEXEC) != 0 ? 1 : 0;
    }
    return count;
}

class OwnerChannelTest : public PrivateRunTest {
protected:
    static void Connect(OwnerChannel& channel, Daemon& daemon) {
        ASSERT_TRUE(channel.Attach(PATIENCE));
        daemon.Accept();
    }
    void SetUp() override {
        PrivateRunTest::SetUp();
        if (!IsSkipped()) {
            std::filesystem::create_directories(DIRECTORY);
        }
    }
};

TEST_F(OwnerChannelTest, ReportsWhenTheDaemonComesAndAgainWhenItComesBack) {
    OwnerChannel channel(NAME);
    EXPECT_FALSE(channel.ReportRunning());
    EXPECT_FALSE(channel.Attach(50ms));
    {
        Daemon daemon;
        ASSERT_TRUE(channel.Attach(PATIENCE));
        EXPECT_TRUE(channel.IsAttached());
        daemon.Accept();
        EXPECT_EQ(daemon.Receive(), StateReport('2'));
        EXPECT_TRUE(channel.ReportTerminating());
        EXPECT_EQ(daemon.Receive(), StateReport('3'));
    }
    Daemon restarted;
    restarted.Accept();
    EXPECT_EQ(restarted.Receive(), StateReport('3'));
    EXPECT_TRUE(restarted.Receive(50ms).empty()) << "reported once a connection";
}

TEST_F(OwnerChannelTest, AReportIsWithTheDaemonEvenWhenTheServiceEndsAtOnce) {
    Daemon daemon;
    {
        OwnerChannel channel(NAME);
        ASSERT_TRUE(channel.Attach(PATIENCE));
        daemon.Accept();
        EXPECT_TRUE(daemon.Receive(50ms).empty()) << "nothing before the service has reported";
        EXPECT_TRUE(channel.ReportTerminating());
    }
    EXPECT_EQ(daemon.Receive(), StateReport('3'));
}

TEST_F(OwnerChannelTest, WhatAFullPipeKeepsBackIsSentLater) {
    Daemon daemon;
    OwnerChannel channel(NAME);
    Connect(channel, daemon);
    int sent = 0;
    while (channel.ReportRunning()) {
        ASSERT_LT(++sent, 100000);
    }
    EXPECT_FALSE(channel.ReportTerminating());
    for (int i = 0; i < sent; ++i) {
        ASSERT_EQ(daemon.Receive(), StateReport('2'));
    }
    // The thread may have found room for the last RUNNING before it was replaced.
    std::vector<uint8_t> last = daemon.Receive();
    if (last == StateReport('2')) {
        last = daemon.Receive();
    }
    EXPECT_EQ(last, StateReport('3'));
}

TEST_F(OwnerChannelTest, HandsReportsOnInOrderAndPassesOverTheRest) {
    Daemon daemon;
    std::vector<std::string> names;
    std::promise<std::thread::id> isLastThere;
    OwnerChannel channel(NAME);
    channel.OnAppState([&](const std::vector<AppStateInfo>& infos) {
        for (const AppStateInfo& info : infos) {
            names.push_back(info.appName);
            if (info.appName == "c") {
                isLastThere.set_value(std::this_thread::get_id());
            }
        }
    });
    Connect(channel, daemon);

    daemon.SendText(Message::APP_STATE_REPORT, "2#a#1#0#0#0#b#2#0#3#0#");
    daemon.SendText(Message::APP_STATE_REPORT, "9#cut#1#");
    daemon.SendText(Message::TERM_APP, "1#wrong-type#");
    daemon.SendText(Message::APP_STATE_REPORT, "1#response#1#0#0#0#", PacketKind::RESPONSE);
    std::vector<uint8_t> largest = Encode({}, {});
    daemon.Send(largest);
    largest.resize(PACKET_MAX);
    daemon.Send(largest);
    daemon.SendText(Message::APP_STATE_REPORT, "1#c#3#0#4#0#", PacketKind::CALL);
    EXPECT_NE(isLastThere.get_future().get(), std::this_thread::get_id());
    EXPECT_THAT(names, ElementsAre("a", "b", "c"));

    channel.OnAppState(nullptr);
    daemon.SendText(Message::APP_STATE_REPORT, "1#dropped#1#0#0#0#");
    EXPECT_TRUE(channel.ReportRunning());
    EXPECT_EQ(daemon.Receive(), StateReport('2')) << "the connection outlives all of it";
}

TEST_F(OwnerChannelTest, EndsTheConnectionOnWhatIsNoPacketAndComesBack) {
    Daemon daemon;
    OwnerChannel channel(NAME);
    Connect(channel, daemon);
    std::vector<uint8_t> header(PACKET_HEADER_SIZE);
    std::memcpy(header.data(), "MUXA\1", 5);
    std::vector<std::vector<uint8_t>> bad = {
        {header.begin(), header.end() - 1}, header, header, header};
    bad[1][0] = 'X';
    bad[2][4] = 4;
    bad[3].resize(PACKET_MAX + 1);
    for (const auto& packet : bad) {
        daemon.Send(packet);
        EXPECT_TRUE(daemon.Receive().empty());
        daemon.Accept();
    }
    EXPECT_TRUE(channel.Attach(PATIENCE));
}

TEST_F(OwnerChannelTest, AsksForApplications) {
    const std::vector<Message::StartAppInfo> start = {
        {"a", {"-v", "x y"}, {{0, {"/bin/a"}}, {2, {"K=V", "L=W"}}}}, {"b", {}, {}}};
    const std::vector<Message::RestartAppInfo> restart = {{"b", {}, {}}};
    using Ask = std::function<bool(OwnerChannel&)>;
    const struct {
        Ask ask;
        const char* told;
        const char* toldByAccessManager;
    } cases[] = {
        {[&](auto& c) { return c.StartApps(start); },
         "0:2#a#2#-v#x y#2#0#1#/bin/a#2#2#K=V#L=W#b#0#0#", "0:2#a#2#-v#x y#b#0#"},
        {[&](auto& c) { return c.RestartApps(restart); }, "1:1#b#0#0#", "1:1#b#0#"},
        {[](auto& c) { return c.TermApps({{"b"}}); }, "2:1#b#", "2:1#b#"},
        {[](auto& c) { return c.ReportState(BaseServiceStateType::INIT); }, "3:1#0#", "3:1#0#"},
        {[](auto& c) { return c.ReportState(BaseServiceStateType::RESTARTING); }, "3:1#1#",
         "3:1#1#"},
        {[](auto& c) {
             return c.ReportExecution({"b", 1, 2, 0});
         },
         "5:1#b#1#2#0#", "5:1#b#1#2#0#"},
        {[](auto& c) {
             return c.LoadStartupCfg({{{"k", "v"}}, "/x"});
         },
         "6:1#/x#1#k#v#", "6:1#/x#1#k#v#"},
        {[](auto& c) {
             return c.ReloadStartupCfg({{}, "/x"});
         },
         "7:1#/x#0#", "7:1#/x#0#"},
    };
    for (const char* name : {NAME, "zornmgr"}) {
        Daemon daemon(name);
        OwnerChannel channel(name);
        EXPECT_FALSE(channel.TermApps({{"b"}})) << "nothing is kept for later";
        ASSERT_TRUE(channel.Attach(PATIENCE));
        daemon.Accept();
        EXPECT_FALSE(channel.TermApps({{"b"}, {"#"}}));
        for (const auto& [ask, told, toldByAccessManager] : cases) {
            EXPECT_TRUE(ask(channel)) << told;
            EXPECT_EQ(Told(daemon.Receive()),
                      std::string(name) == NAME ? told : toldByAccessManager);
        }
    }
}

TEST_F(OwnerChannelTest, GivesUpOnADaemonThatDoesNotReadAndHearsItMeanwhile) {
    Daemon daemon;
    std::promise<bool> isAsked;
    OwnerChannel channel(NAME);
    channel.OnAppState([&](const std::vector<AppStateInfo>& infos) {
        EXPECT_FALSE(channel.QueryAppState({"a"}, PATIENCE)) << "its answer could not be received";
        EXPECT_FALSE(channel.SetDelayCoreAffinity({}, PATIENCE)) << "nor its result";
        isAsked.set_value(channel.TermApps({{infos.front().appName}}));
    });
    Connect(channel, daemon);
    daemon.SendText(Message::APP_STATE_REPORT, "1#first#1#0#0#0#");
    EXPECT_TRUE(isAsked.get_future().get());
    EXPECT_EQ(Told(daemon.Receive()), "2:1#first#");

    isAsked = {};
    const std::future<void> sender = std::async(std::launch::async, [&] {
        while (channel.TermApps({{"many"}})) {
        }
    });
    EXPECT_EQ(sender.wait_for(500ms), std::future_status::timeout);
    EXPECT_FALSE(channel.QueryAppState({"a"}, 0ms));
    EXPECT_EQ(sender.wait_for(0ms), std::future_status::timeout) << "the query gave up before";
    EXPECT_EQ(sender.wait_for(PATIENCE), std::future_status::ready);
    EXPECT_TRUE(channel.IsAttached());
    EXPECT_EQ(Told(daemon.Receive()), "2:1#many#");
    daemon.SendText(Message::APP_STATE_REPORT, "1#second#1#0#0#0#");
    EXPECT_TRUE(isAsked.get_future().get()) << "there is room again";
}

TEST_F(OwnerChannelTest, QueriesOneAtATimeAndTakesOnlyTheirAnswers) {
    using Answered = std::optional<OwnerChannel::StatusByName>;
    Daemon daemon;
    OwnerChannel channel(NAME);
    EXPECT_EQ(channel.QueryAppState({}, 0ms), OwnerChannel::StatusByName()) << "nothing to ask";
    EXPECT_FALSE(channel.QueryAppState({"a"}, PATIENCE)) << "not attached";
    Connect(channel, daemon);
    EXPECT_FALSE(channel.QueryAppState({std::string(4000, 'x')}, PATIENCE));
    EXPECT_FALSE(channel.QueryAppState({"l"}, 20ms));
    EXPECT_EQ(Told(daemon.Receive()), Asked('l'));

    const auto ask = [&](const char* name) {
        return std::async(std::launch::async,
                          [&channel, name] { return channel.QueryAppState({name}, PATIENCE); });
    };
    std::future<Answered> first = ask("a");
    EXPECT_EQ(Told(daemon.Receive()), Asked('a'));
    std::future<Answered> second = ask("b");
    EXPECT_FALSE(channel.QueryAppState({"c"}, 20ms)) << "its turn does not come in time";
    EXPECT_TRUE(daemon.Receive(20ms).empty()) << "the second query waits for the first answer";
    daemon.SendText(Message::APP_DETAIL_STATUS_REPORT, Answer('l', 0));
    daemon.SendText(Message::APP_DETAIL_STATUS_REPORT, "cut");
    EXPECT_EQ(first.wait_for(50ms), std::future_status::timeout) << "neither is its answer";
    daemon.SendText(Message::APP_DETAIL_STATUS_REPORT, Answer('a', 2));
    EXPECT_EQ(first.get(), (OwnerChannel::StatusByName{{"a", 2}}));
    EXPECT_EQ(Told(daemon.Receive()), Asked('b'));
    daemon.SendText(Message::APP_DETAIL_STATUS_REPORT, Answer('b', 1));
    EXPECT_EQ(second.get(), (OwnerChannel::StatusByName{{"b", 1}}));
}

TEST_F(OwnerChannelTest, SetsDelayCoreAffinityAndTakesOnlyTheResultOfThatCall) {
    std::optional<Daemon> daemon(std::in_place);
    OwnerChannel channel(NAME);
    EXPECT_FALSE(channel.SetDelayCoreAffinity({}, PATIENCE)) << "not attached";
    ASSERT_TRUE(channel.Attach(PATIENCE));
    daemon->Accept();
    const auto set = [&] {
        return std::async(std::launch::async, [&] {
            return channel.SetDelayCoreAffinity({Message::DELAY_RESET, -1, 1, 9, 0x01020304},
                                                PATIENCE * 2);
        });
    };
    // The sequence number of the request; 0 when it is another one.
    const auto receive = [&]() -> uint64_t {
        const std::vector<uint8_t> bytes = daemon->Receive();
        const auto packet = Wire::DecodePacket(bytes);
        const std::vector<uint8_t> body = {1, 0xFF, 1, 0, 4, 3, 2, 1};
        return packet && packet->header.kind == PacketKind::CALL &&
                       std::ranges::equal(packet->body, body)
                   ? packet->header.sequence
                   : 0;
    };
    const auto respond = [&](uint64_t sequence, std::vector<uint8_t> body) {
        daemon->Send(Encode({PacketKind::RESPONSE, sequence}, body));
    };
    EXPECT_FALSE(channel.SetDelayCoreAffinity({}, 20ms));
    EXPECT_FALSE(daemon->Receive().empty());

    std::future<std::optional<uint32_t>> result = set();
    const uint64_t sequence = receive();
    ASSERT_NE(sequence, 0U);
    EXPECT_FALSE(channel.QueryAppState({"a"}, 20ms)) << "its turn does not come in time";
    respond(sequence - 1, {1, 0, 0, 0});
    respond(sequence, {1, 0, 0});
    respond(sequence, {1, 0, 0, 0, 0});
    EXPECT_EQ(result.wait_for(50ms), std::future_status::timeout) << "none of them is its result";
    respond(sequence, {0x0B, 0x03, 0xF1, 0});
    EXPECT_EQ(result.get(), Message::DELAY_BUSY);

    result = set();
    EXPECT_GT(receive(), sequence) << "the connection has outlived all of it";
    daemon.reset();
    EXPECT_EQ(result.wait_for(PATIENCE), std::future_status::ready) << "the loss is told at once";
    EXPECT_FALSE(result.get());
}

// The daemon's end of the heartbeats.
class HeartbeatDaemon {
public:
    HeartbeatDaemon() { EXPECT_EQ(listen(listener_.Get(), 4), 0); }

    bool Accept(std::chrono::milliseconds timeout = PATIENCE) {
        const bool isThere = IsReadable(listener_.Get(), timeout);
        peer_ = UniqueFd(isThere ? accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
        return isThere;
    }
    void Refuse() { peer_.Reset(); }
    std::string Receive() {
        char name[64];
        const ssize_t length =
            IsReadable(peer_.Get()) ? recv(peer_.Get(), name, sizeof name, 0) : 0;
        return {name, static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }

private:
    UniqueFd listener_ = Bind(SOCK_SEQPACKET, HEARTBEAT);
    UniqueFd peer_;
};

TEST_F(OwnerChannelTest, BeatsUntilStopped) {
    OwnerChannel channel(NAME);
    EXPECT_FALSE(channel.StartHeartbeat(0ms));
    for (int round = 0; round < 2; ++round) {  // the second one is a restarted daemon
        HeartbeatDaemon daemon;
        ASSERT_TRUE(channel.StartHeartbeat(round == 0 ? 3600000ms : 10ms));
        ASSERT_TRUE(daemon.Accept());
        for (int beat = 0; beat < 3; ++beat) {
            EXPECT_EQ(daemon.Receive(), NAME);
            ASSERT_TRUE(channel.StartHeartbeat(10ms)) << "a new period takes effect at once";
        }
        daemon.Refuse();
        ASSERT_TRUE(daemon.Accept()) << "connects again after its connection was ended";
        EXPECT_EQ(daemon.Receive(), NAME);
    }
    channel.StopHeartbeat();
    HeartbeatDaemon quiet;
    EXPECT_FALSE(quiet.Accept(50ms));
    ASSERT_TRUE(channel.StartHeartbeat(std::chrono::hours(1)));
    ASSERT_TRUE(quiet.Accept());
    EXPECT_EQ(quiet.Receive(), NAME) << "the first beat is sent at once";
}

TEST_F(OwnerChannelTest, LeavesDescriptorsAndSignalsToTheService) {
    Daemon daemon;
    std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
    const size_t before = CountCloseOnExec();
    {
        OwnerChannel channel(NAME);
        ASSERT_TRUE(channel.Attach(PATIENCE));
        ASSERT_TRUE(channel.StartHeartbeat());
        EXPECT_EQ(CountCloseOnExec(), before + 2);
        // Blocked in this thread it is pending, unless one of the channel's takes it and dies.
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
        ASSERT_EQ(kill(getpid(), SIGTERM), 0);
        EXPECT_EQ(sigwaitinfo(&signals, nullptr), SIGTERM);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
    EXPECT_EQ(CountCloseOnExec(), before);
}

// Calls everything there is, from callbacks as well, until told to end.
void UseChannel(OwnerChannel& channel, std::atomic<int>& received,
                const std::atomic<bool>& isDone) {
    while (!isDone) {
        channel.OnAppState([&](const std::vector<AppStateInfo>& infos) {
            received += static_cast<int>(infos.size());
            channel.ReportRunning();
        });
        channel.ReportRunning();
        channel.Attach(1ms);
        channel.StartHeartbeat(1ms);
        channel.StopHeartbeat();
    }
}

TEST_F(OwnerChannelTest, ManyThreadsAndAFlappingDaemon) {
    std::atomic<int> received{0};
    std::atomic<bool> isDone{false};
    OwnerChannel channel(NAME);
    channel.Attach(0ms);
    std::array<std::thread, 3> users;
    for (std::thread& user : users) {
        user = std::thread([&] { UseChannel(channel, received, isDone); });
    }
    for (int i = 0; i < 20; ++i) {
        Daemon daemon;
        daemon.Accept();
        EXPECT_EQ(daemon.Receive(), StateReport('2'));
        daemon.SendText(Message::APP_STATE_REPORT, "1#a#1#0#0#0#");
    }
    const auto deadline = steady_clock::now() + PATIENCE;
    while (received == 0 && steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    isDone = true;
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_GT(received, 0);
}

}  // namespace
}  // namespace ProcMgr::Agent
