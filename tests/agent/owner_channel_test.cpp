// An owner's channel against the daemon's end of the sockets, played by the test below a private
// /run.
#include "agent/owner_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <future>

#include "message/record_codec.h"
#include "message/request_codec.h"
#include "tests/support/private_run.h"
#include "tests/support/raw_peer.h"
#include "wire/packet_io.h"
#include "wire/socket_paths.h"

namespace ProcMgr::Agent {
namespace {

using namespace std::chrono_literals;
using Message::AppStateInfo;
using Tests::PATIENCE;
using Tests::RawListener;
using Tests::RawPeer;
using Wire::PacketHeader;
using Wire::PacketKind;

constexpr const char* NAME = "owner";
constexpr const char* RUNNING = "3:1#2#";
constexpr const char* TERMINATING = "3:1#3#";

// The daemon's end of a pipe, one peer at a time.
class Daemon {
public:
    explicit Daemon(const std::string& name = NAME) : listener_(Wire::PipePath(name)) {}
    // Waits for the connection of the channel.
    explicit Daemon(OwnerChannel& channel, const std::string& name = NAME) : Daemon(name) {
        EXPECT_TRUE(channel.Attach(PATIENCE));
        Accept();
    }

    void Accept() {
        peer_ = listener_.Accept();
        ASSERT_TRUE(peer_.IsValid());
    }
    // The record in the next packet, as "TYPE:PAYLOAD". Otherwise "nothing" after `patience`, "end"
    // at the end of the connection, or "no record".
    std::string Next(std::chrono::milliseconds patience = PATIENCE) {
        bytes_ = peer_.Receive(patience);
        if (!bytes_ || bytes_->empty()) {
            return bytes_ ? "end" : "nothing";
        }
        const auto record = Message::DecodeRecord(LastPacket().body);
        return record
                   ? std::to_string(record->type) + ':' + std::string(Message::PayloadOf(*record))
                   : "no record";
    }
    // The packet that Next has received.
    Wire::Packet LastPacket() const {
        const auto* bytes = reinterpret_cast<const uint8_t*>(bytes_->data());
        return Wire::DecodePacket({bytes, bytes_->size()}).value();
    }
    void Send(std::span<const uint8_t> body, const PacketHeader& header = {}) {
        ASSERT_EQ(Wire::SendPacket(peer_.Fd(), header, body), Wire::SendResult::SENT);
    }
    void SendRecord(Message::RequestType type, std::string_view payload,
                    const PacketHeader& header = {}) {
        Send(Message::EncodeRecord(Message::MakeRecord(type, payload)), header);
    }

private:
    RawListener listener_;
    RawPeer peer_;
    std::optional<std::string> bytes_;
};

// A query for one name of one letter, and its answer.
std::string Asked(char name) {
    return std::string("9:\1\0\0\0\1\0\0\0", 10) + name;
}

std::string Answer(char name, char status) {
    return std::string("\1\0\0\0\1\0\0\0", 8) + name + status + std::string(3, '\0');
}

int CountCloseOnExec() {
    int count = 0;
    for (int fd = 3; fd < 100; ++fd) {
        count += fcntl(fd, F_GETFD) == FD_CLOEXEC ? 1 : 0;
    }
    return count;
}

using OwnerChannelTest = PrivateRunTest;

TEST_F(OwnerChannelTest, ReportsTheStateToEachDaemonOnce) {
    std::optional<OwnerChannel> channel(NAME);
    EXPECT_FALSE(channel->ReportRunning());
    EXPECT_FALSE(channel->Attach(50ms));
    {
        Daemon daemon(*channel);
        EXPECT_TRUE(channel->IsAttached());
        EXPECT_EQ(daemon.Next(), RUNNING);
        EXPECT_TRUE(channel->ReportTerminating());
        EXPECT_EQ(daemon.Next(), TERMINATING);
    }
    Daemon restarted;
    restarted.Accept();
    EXPECT_EQ(restarted.Next(), TERMINATING);
    EXPECT_EQ(restarted.Next(50ms), "nothing");
    EXPECT_TRUE(channel->ReportRunning());
    channel.reset();
    EXPECT_EQ(restarted.Next(), RUNNING) << "sent before the end of the service";

    OwnerChannel unusable(std::string(93, 'a'));
    EXPECT_FALSE(unusable.Attach(PATIENCE)) << "the path of the pipe is a byte too long";
    EXPECT_FALSE(OwnerChannel("..").StartHeartbeat());
}

TEST_F(OwnerChannelTest, AReportThatAFullPipeDoesNotTakeIsSentLater) {
    OwnerChannel channel(NAME);
    Daemon daemon(channel);
    int sent = 0;
    while (channel.ReportRunning()) {
        ASSERT_LT(++sent, 100000);
    }
    EXPECT_FALSE(channel.ReportTerminating());
    for (int i = 0; i < sent; ++i) {
        ASSERT_EQ(daemon.Next(), RUNNING);
    }
    // The thread may have found room for the last RUNNING before it was replaced.
    std::string last = daemon.Next();
    if (last == RUNNING) {
        last = daemon.Next();
    }
    EXPECT_EQ(last, TERMINATING);
}

TEST_F(OwnerChannelTest, HandsReportsOnInOrderAndEndsTheConnectionOnlyAfterWhatIsNoPacket) {
    std::string names;
    std::promise<std::thread::id> hasLast;
    OwnerChannel channel(NAME);
    channel.OnAppState([&](const std::vector<AppStateInfo>& infos) {
        for (const AppStateInfo& info : infos) {
            names += info.appName;
        }
        if (names.ends_with('c')) {
            hasLast.set_value(std::this_thread::get_id());
        }
    });
    Daemon daemon(channel);
    daemon.SendRecord(Message::APP_STATE_REPORT, "2#a#1#0#0#0#b#2#0#3#0#");
    daemon.SendRecord(Message::APP_STATE_REPORT, "9#cut#1#");
    daemon.SendRecord(Message::TERM_APP, "1#wrong-type#");
    daemon.SendRecord(Message::APP_STATE_REPORT, "1#response#1#0#0#0#", {PacketKind::RESPONSE, 0});
    daemon.Send({});
    daemon.Send(std::vector<uint8_t>(Wire::PACKET_BODY_MAX));
    daemon.SendRecord(Message::APP_STATE_REPORT, "1#c#3#0#4#0#", {PacketKind::CALL, 1});
    EXPECT_NE(hasLast.get_future().get(), std::this_thread::get_id());
    EXPECT_EQ(names, "abc");
    channel.OnAppState(nullptr);
    daemon.SendRecord(Message::APP_STATE_REPORT, "1#dropped#1#0#0#0#");
    EXPECT_TRUE(channel.ReportRunning());
    EXPECT_EQ(daemon.Next(), RUNNING) << "the connection is still there";

    for (const uint32_t kind : {4U, 1U}) {
        daemon.Send(std::vector<uint8_t>(kind == 1 ? Wire::PACKET_BODY_MAX + 1 : 0),
                    {PacketKind{kind}, 0});
        EXPECT_EQ(daemon.Next(), "end");
        daemon.Accept();
        EXPECT_EQ(daemon.Next(), RUNNING);
    }
}

TEST_F(OwnerChannelTest, SendsEachRequest) {
    const std::vector<Message::StartAppInfo> apps = {{"a", {"-v"}, {{2, {"K=V"}}}}};
    OwnerChannel channel(NAME);
    EXPECT_FALSE(channel.TermApps({{"b"}})) << "requests are not kept for later";
    Daemon daemon(channel);
    EXPECT_FALSE(channel.TermApps({{"b"}, {"#"}})) << "sends nothing";
    EXPECT_TRUE(channel.StartApps(apps) && channel.RestartApps(apps) && channel.TermApps({{"b"}}));
    EXPECT_TRUE(channel.ReportState(BaseServiceStateType::RESTARTING));
    EXPECT_TRUE(channel.ReportExecution({"b", 1, 2, 0}));
    EXPECT_TRUE(channel.LoadStartupCfg({{}, "/x"}) && channel.ReloadStartupCfg({{}, "/x"}));
    for (const char* sent : {"0:1#a#1#-v#1#2#1#K=V#", "1:1#a#1#-v#1#2#1#K=V#", "2:1#b#", "3:1#1#",
                             "5:1#b#1#2#0#", "6:1#/x#0#", "7:1#/x#0#"}) {
        EXPECT_EQ(daemon.Next(), sent);
    }
    OwnerChannel accessManager("zornmgr");
    Daemon other(accessManager, "zornmgr");
    EXPECT_TRUE(accessManager.RestartApps(apps));
    EXPECT_EQ(other.Next(), "1:1#a#1#-v#") << "no dynamic parameters";
}

TEST_F(OwnerChannelTest, GivesUpOnADaemonThatDoesNotReadAndStillReceives) {
    std::promise<bool> isSent;
    OwnerChannel channel(NAME);
    channel.OnAppState([&](const std::vector<AppStateInfo>& infos) {
        EXPECT_FALSE(channel.QueryAppState({"a"}, PATIENCE)) << "no answer could be received";
        EXPECT_FALSE(channel.SetDelayCoreAffinity({}, PATIENCE)) << "no result either";
        isSent.set_value(channel.TermApps({{infos.front().appName}}));
    });
    Daemon daemon(channel);
    daemon.SendRecord(Message::APP_STATE_REPORT, "1#first#1#0#0#0#");
    EXPECT_TRUE(isSent.get_future().get());
    EXPECT_EQ(daemon.Next(), "2:1#first#");

    isSent = {};
    const std::future<void> sender = std::async(std::launch::async, [&] {
        while (channel.TermApps({{"many"}})) {
        }
    });
    EXPECT_EQ(sender.wait_for(500ms), std::future_status::timeout);
    EXPECT_FALSE(channel.QueryAppState({"a"}, 0ms));
    EXPECT_EQ(sender.wait_for(0ms), std::future_status::timeout) << "the query gave up first";
    EXPECT_EQ(sender.wait_for(PATIENCE), std::future_status::ready);
    EXPECT_TRUE(channel.IsAttached());
    EXPECT_EQ(daemon.Next(), "2:1#many#");
    daemon.SendRecord(Message::APP_STATE_REPORT, "1#second#1#0#0#0#");
    EXPECT_TRUE(isSent.get_future().get()) << "there is room again";
}

TEST_F(OwnerChannelTest, ListsOfSeveralCallersAreNotMixed) {
    OwnerChannel channel(NAME);
    Daemon daemon(channel);
    constexpr size_t RECORDS = 50;
    std::vector<std::future<bool>> callers;
    for (const char letter : {'a', 'b', 'c'}) {
        callers.push_back(std::async(std::launch::async, [&channel, letter] {
            const Message::TermAppInfo fillsARecord{std::string(3900, letter)};
            return channel.TermApps({RECORDS, fillsARecord});
        }));
    }
    for (size_t caller = 0; caller < callers.size(); ++caller) {
        const std::string first = daemon.Next();
        for (size_t i = 1; i < RECORDS; ++i) {
            ASSERT_EQ(daemon.Next(), first);
        }
    }
}

TEST_F(OwnerChannelTest, QueriesOneAtATimeAndTakesOnlyTheirAnswers) {
    using Answered = std::optional<OwnerChannel::StatusByName>;
    OwnerChannel channel(NAME);
    EXPECT_EQ(channel.QueryAppState({}, 0ms), OwnerChannel::StatusByName()) << "nothing to ask";
    EXPECT_FALSE(channel.QueryAppState({"a"}, PATIENCE)) << "not attached";
    Daemon daemon(channel);
    EXPECT_FALSE(channel.QueryAppState({std::string(4000, 'x')}, PATIENCE));
    EXPECT_FALSE(channel.QueryAppState({"l"}, 20ms));
    EXPECT_EQ(daemon.Next(), Asked('l'));

    const auto ask = [&](const char* name) {
        return std::async(std::launch::async,
                          [&channel, name] { return channel.QueryAppState({name}, PATIENCE); });
    };
    std::future<Answered> first = ask("a");
    EXPECT_EQ(daemon.Next(), Asked('a'));
    std::future<Answered> second = ask("b");
    EXPECT_FALSE(channel.QueryAppState({"c"}, 20ms)) << "its turn does not come in time";
    EXPECT_EQ(daemon.Next(20ms), "nothing") << "the second query waits for the first answer";
    daemon.SendRecord(Message::APP_DETAIL_STATUS_REPORT, Answer('l', 0));
    daemon.SendRecord(Message::APP_DETAIL_STATUS_REPORT, "cut");
    daemon.SendRecord(Message::APP_DETAIL_STATUS_REPORT, Answer('a', 2));
    EXPECT_EQ(first.get(), (OwnerChannel::StatusByName{{"a", 2}}));
    EXPECT_EQ(daemon.Next(), Asked('b'));
    daemon.SendRecord(Message::APP_DETAIL_STATUS_REPORT, Answer('b', 1));
    EXPECT_EQ(second.get(), (OwnerChannel::StatusByName{{"b", 1}}));
}

TEST_F(OwnerChannelTest, SetsDelayCoreAffinityAndTakesOnlyTheResultOfThatCall) {
    OwnerChannel channel(NAME);
    EXPECT_FALSE(channel.SetDelayCoreAffinity({}, PATIENCE)) << "not attached";
    std::optional<Daemon> daemon;
    daemon.emplace(channel);
    const Message::DelayCoreAffinityReq request{Message::DELAY_RESET, -1, 1, 0, 0x01020304};
    std::future<std::optional<uint32_t>> result;
    // Makes the call and returns its sequence number.
    const auto set = [&] {
        result = std::async(std::launch::async,
                            [&] { return channel.SetDelayCoreAffinity(request, PATIENCE * 2); });
        daemon->Next();
        const Wire::Packet packet = daemon->LastPacket();
        EXPECT_EQ(packet.header.kind, PacketKind::CALL);
        EXPECT_TRUE(std::ranges::equal(packet.body, Message::EncodeDelayRequest(request)));
        return packet.header.sequence;
    };
    const auto respond = [&](uint64_t sequence, std::vector<uint8_t> body) {
        daemon->Send(body, {PacketKind::RESPONSE, sequence});
    };
    EXPECT_FALSE(channel.SetDelayCoreAffinity({}, 20ms));
    EXPECT_EQ(daemon->Next(), "no record");

    const uint64_t sequence = set();
    EXPECT_FALSE(channel.QueryAppState({"a"}, 20ms)) << "its turn does not come in time";
    respond(sequence - 1, {1, 0, 0, 0});
    respond(sequence, {1, 0, 0});
    respond(sequence, {1, 0, 0, 0, 0});
    respond(sequence, {0x0B, 0x03, 0xF1, 0});
    EXPECT_EQ(result.get(), Message::DELAY_BUSY);

    EXPECT_GT(set(), sequence) << "the connection is still there";
    daemon.reset();
    EXPECT_EQ(result.wait_for(PATIENCE), std::future_status::ready) << "ends with the connection";
    EXPECT_FALSE(result.get());
}

TEST_F(OwnerChannelTest, SendsHeartbeatsUntilStopped) {
    OwnerChannel channel(NAME);
    EXPECT_FALSE(channel.StartHeartbeat(0ms));
    for (int round = 0; round < 2; ++round) {  // the second daemon is a restarted one
        RawListener daemon(Wire::HEARTBEAT_SOCKET);
        ASSERT_TRUE(channel.StartHeartbeat(round == 0 ? 1h : 10ms));
        RawPeer peer = daemon.Accept();
        for (int beat = 0; beat < 3; ++beat) {
            EXPECT_EQ(peer.Receive(), NAME);
            ASSERT_TRUE(channel.StartHeartbeat(10ms)) << "a new period takes effect at once";
        }
        peer.Close();
        peer = daemon.Accept();
        EXPECT_EQ(peer.Receive(), NAME) << "connects again after the end of its connection";
    }
    channel.StopHeartbeat();
    RawListener quiet(Wire::HEARTBEAT_SOCKET);
    EXPECT_FALSE(quiet.Accept(50ms).IsValid());
    ASSERT_TRUE(channel.StartHeartbeat(1h));
    EXPECT_EQ(quiet.Accept().Receive(), NAME) << "the first beat is sent at once";
}

TEST_F(OwnerChannelTest, LeavesDescriptorsAndSignalsToTheService) {
    Daemon daemon;
    std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
    const int before = CountCloseOnExec();
    {
        OwnerChannel channel(NAME);
        ASSERT_TRUE(channel.Attach(PATIENCE));
        ASSERT_TRUE(channel.StartHeartbeat());
        // The first heartbeat, which nobody takes, needs a socket for a moment.
        EXPECT_TRUE(Tests::WaitUntil([&] { return CountCloseOnExec() == before + 2; }));
        // Blocked in this thread, the signal is pending, unless a thread of the channel takes it.
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        kill(getpid(), SIGTERM);
        EXPECT_EQ(sigwaitinfo(&signals, nullptr), SIGTERM);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
    EXPECT_EQ(CountCloseOnExec(), before);
}

TEST_F(OwnerChannelTest, ManyThreadsAndADaemonThatRestartsAgainAndAgain) {
    std::atomic<size_t> received{0};
    std::atomic<bool> isDone{false};
    OwnerChannel channel(NAME);
    channel.Attach(0ms);
    const auto useAll = [&] {
        while (!isDone) {
            channel.OnAppState([&](const std::vector<AppStateInfo>& infos) {
                received += infos.size();
                channel.ReportRunning();
            });
            channel.ReportRunning();
            channel.Attach(1ms);
            channel.StartHeartbeat(1ms);
            channel.StopHeartbeat();
        }
    };
    const std::array<std::future<void>, 3> users = {std::async(std::launch::async, useAll),
                                                    std::async(std::launch::async, useAll),
                                                    std::async(std::launch::async, useAll)};
    for (int i = 0; i < 20; ++i) {
        Daemon daemon;
        daemon.Accept();
        EXPECT_EQ(daemon.Next(), RUNNING);
        daemon.SendRecord(Message::APP_STATE_REPORT, "1#a#1#0#0#0#");
    }
    EXPECT_TRUE(Tests::WaitUntil([&] { return received > 0; }));
    isDone = true;
}

}  // namespace
}  // namespace ProcMgr::Agent
