// The console and its pipe: the test plays the daemon at the other end.
#include "console/console_server.h"

#include <gmock/gmock.h>
#include <sys/eventfd.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "console/console_records.h"
#include "message/report_codec.h"
#include "message/request_codec.h"
#include "tests/console/stream_client.h"
#include "tests/support/private_run.h"
#include "wire/packet.h"
#include "wire/socket_paths.h"

namespace ProcMgr::Console {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using Tests::RawListener;
using Tests::RawPeer;
using Tests::StreamClient;

constexpr const char* PATH = "/run/process-manager/console.sock";
constexpr const char* STOP_A =
    "{\"version\":1,\"command\":\"stop\",\"names\":[\"a\"],\"wait\":true}\n";
constexpr const char* SENT = "{\"event\":\"sent\"}\n";

std::string Lost(const std::string& reason) {
    return R"({"event":"done","ok":false,"code":"no-daemon","error":")" + reason + "\"}\n";
}

// The next record of the console, "TYPE PAYLOAD"; the payload of a query is left out.
std::string Next(const RawPeer& pipe) {
    const std::string bytes = pipe.Receive().value_or("");
    const auto packet =
        Wire::DecodePacket({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
    const auto record = packet ? Message::DecodeRecord(packet->body) : std::nullopt;
    if (!record) {
        return {};
    }
    const bool isQuery = record->type == Message::QUERY_APP_STATE;
    return std::to_string(record->type) +
           (isQuery ? "" : " " + std::string(Message::PayloadOf(*record)));
}

void Send(const RawPeer& pipe, const Message::RequestMsg& record) {
    const auto body = Message::EncodeRecord(record);
    std::array<uint8_t, Wire::PACKET_HEADER_SIZE + sizeof(record)> packet{};
    Wire::EncodePacketHeader({}, std::span(packet).first<Wire::PACKET_HEADER_SIZE>());
    std::copy(body.begin(), body.end(), packet.begin() + Wire::PACKET_HEADER_SIZE);
    ASSERT_TRUE(pipe.Send(packet.data(), packet.size()));
}

class ConsoleServerTest : public PrivateRunTest {
protected:
    void SetUp() override {
        PrivateRunTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        daemon_ = std::make_unique<RawListener>(Wire::PipePath(OWNER));
        ASSERT_EQ(socket_.Open(PATH, std::nullopt), nullptr);
        thread_ = std::thread([this] { ConsoleServer(socket_, getppid()).Run(stop_.Get()); });
    }
    void TearDown() override {
        if (thread_.joinable()) {
            eventfd_write(stop_.Get(), 1);
            thread_.join();
        }
    }

    Wire::UniqueFd stop_{eventfd(0, EFD_CLOEXEC)};
    std::unique_ptr<RawListener> daemon_;
    Wire::GroupSocket socket_;
    std::thread thread_;
};

TEST_F(ConsoleServerTest, TheAnswersOfTheDaemonFindTheirClients) {
    const RawPeer pipe = daemon_->Accept();
    EXPECT_EQ(Next(pipe), "3 1#2#") << "it runs";
    const StreamClient first(PATH);
    ASSERT_TRUE(first.Send(STOP_A));
    EXPECT_EQ(first.Line(), SENT);
    const StreamClient second(PATH);
    ASSERT_TRUE(second.Send(STOP_A));
    EXPECT_EQ(second.Line(), SENT);
    EXPECT_THAT(std::vector({Next(pipe), Next(pipe), Next(pipe), Next(pipe)}),
                ElementsAre("2 1#a#", "9", "2 1#a#", "9"));
    // The first request is under way, so the second one is refused; then the application ends.
    const auto report = [&](ReportAppStateType type) {
        const std::string item = Message::EncodeAppState({"a", 7, 0, type, 0});
        Send(pipe, Message::MakeRecord(Message::APP_STATE_REPORT, "1#" + item));
    };
    Send(pipe, *Message::EncodeDetailStatus({{"a", 0}}));
    report(INVALID_INTERMEDIATE_STATE);
    Send(pipe, *Message::EncodeDetailStatus({{"a", 0}}));
    EXPECT_THAT(second.Rest(), EndsWith("\"failed: a\"}\n"));
    report(TERMINATED_NORMAL_EXIT);
    EXPECT_THAT(first.Rest(), EndsWith("\"stopped\",\"final\":true,\"ok\":true}\n"
                                       "{\"event\":\"done\",\"ok\":true}\n"));
}

TEST_F(ConsoleServerTest, ALostPipeIsToldAtOnceAndTakenUpAgain) {
    {
        RawPeer pipe = daemon_->Accept();
        EXPECT_EQ(Next(pipe), "3 1#2#");
        const StreamClient waiting(PATH);
        ASSERT_TRUE(waiting.Send(STOP_A));
        EXPECT_EQ(waiting.Line(), SENT);
        daemon_.reset();
        std::filesystem::remove(Wire::PipePath(OWNER));
        pipe.Close();
        EXPECT_EQ(waiting.Rest(), Lost("process-manager has ended the connection"));
    }
    const StreamClient early(PATH);
    ASSERT_TRUE(early.Send(STOP_A));
    EXPECT_EQ(early.Rest(), Lost("process-manager does not run, or has not opened the pipe yet"));
    daemon_ = std::make_unique<RawListener>(Wire::PipePath(OWNER));
    const RawPeer pipe = daemon_->Accept();
    EXPECT_EQ(Next(pipe), "3 1#2#") << "reported again";
    const StreamClient late(PATH);
    ASSERT_TRUE(late.Send(STOP_A));
    EXPECT_EQ(late.Line(), SENT);
    eventfd_write(stop_.Get(), 1);
    EXPECT_EQ(late.Rest(), Lost("pm-console ends"));
    EXPECT_THAT(std::vector({Next(pipe), Next(pipe), Next(pipe)}),
                ElementsAre("2 1#a#", "9", "3 1#3#"));
}

TEST_F(ConsoleServerTest, ADaemonThatTakesNothingHoldsNobodyUp) {
    const RawPeer pipe = daemon_->Accept();
    // More records than the kernel keeps for the daemon.
    std::string names;
    for (int i = 0; i < 60; ++i) {
        names += (i == 0 ? "\"app" : ",\"app") + std::to_string(i) + "\"";
    }
    const std::string request =
        R"({"version":1,"command":"start","wait":true,"names":[)" + names + "]}\n";
    std::vector<StreamClient> clients;
    for (int i = 0; i < 12; ++i) {
        clients.emplace_back(PATH);
        ASSERT_TRUE(clients.back().Send(request));
    }
    std::vector<std::string> answers;
    for (const StreamClient& client : clients) {
        answers.push_back(client.Rest());
    }
    EXPECT_THAT(answers, testing::Each(EndsWith(Lost("process-manager takes no requests"))));
}

}  // namespace
}  // namespace ProcMgr::Console
