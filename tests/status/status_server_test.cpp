// The server of the status endpoint and its clients, the hostile ones above all.
#include "status/status_server.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <new>

#include "tests/fakes/log_capture.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/status_client.h"
#include "wire/socket_peer.h"

namespace ProcMgr::Status {
namespace {

using namespace std::chrono_literals;
using Fakes::LogCapture;
using Tests::AskStatus;
using Tests::PATIENCE;
using Tests::StatusClient;
using Tests::WaitUntil;

const std::string UNKNOWN = "{\"version\":1,\"error\":\"unknown request\"}\n";
constexpr gid_t DAEMON_GROUP = 1;  // the group "daemon" of every Debian system

class Server : public testing::Test {
protected:
    void SetUp() override {
        LogCapture::Clear();
        // Other users have to reach the socket.
        chmod(directory_.Path().c_str(), 0755);
    }

    void Start(const std::string& group = "") {
        server_.emplace([this](const Request& request) { return Answer(request); });
        server_->Start(path_, group);
    }
    void Stop() {
        const SteadyTime begin = std::chrono::steady_clock::now();
        server_->Stop();
        EXPECT_TRUE(server_->Join(begin + PATIENCE));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms * Tests::SLOWER);
        EXPECT_FALSE(std::filesystem::exists(path_));
    }

    std::string Answer(const Request& request) {
        ++answers_;
        if (request.name == "huge") {
            return std::string(size_t{8} << 20, 'h') + "\n";
        }
        if (request.name == "fails") {
            throw std::bad_alloc();
        }
        return request.name + "," + std::to_string(request.number) + "\n";
    }
    // How many clients have been dropped for being slow.
    bool WaitForDropped(uint64_t count) {
        return WaitUntil([&] { return server_->GetCounters().dropped == count; });
    }
    // What a process of this user and group gets: 0 for the answer, 1 for none, else the errno of
    // the connect.
    int AnswerTo(uid_t uid, gid_t gid) const {
        Tests::Child child(uid, gid, [&] {
            const StatusClient client(path_);
            client.Send("status\n");
            return client.Error() == 0 ? client.ReceiveAll() != ",0\n" : client.Error();
        });
        return child.ExitCode();
    }

    const Tests::TempDirectory directory_;
    const std::string path_ = directory_ / "run/status.sock";
    std::atomic<int> answers_{0};
    std::optional<StatusServer> server_;
};

TEST_F(Server, AnswersRequestsAndRemovesItsSocket) {
    Start();
    EXPECT_EQ(AskStatus(path_, "status"), ",0\n");
    EXPECT_EQ(AskStatus(path_, "status a b"), "a b,0\n");
    EXPECT_EQ(AskStatus(path_, "events 18446744073709551615"), ",18446744073709551615\n");
    for (const std::string request :
         {"", "status ", "Status", "statusx", "events", "events ", "events -1", "events 1x",
          "events 18446744073709551616", " status", "status\r"}) {
        EXPECT_EQ(AskStatus(path_, request), UNKNOWN) << request;
    }
    // What follows the first line does not matter; the line may come in parts.
    const StatusClient parts(path_);
    for (const char* part : {"sta", "tus", "\nevents 1\n"}) {
        EXPECT_TRUE(parts.Send(part));
        std::this_thread::yield();
    }
    EXPECT_EQ(parts.ReceiveAll(), ",0\n");
    EXPECT_EQ(server_->GetCounters().requests, 15U);
    Stop();
}

TEST_F(Server, PartialAndHugeLines) {
    Start();
    const StatusClient silent(path_);
    const StatusClient partial(path_);
    EXPECT_TRUE(partial.Send("status"));
    const StatusClient huge(path_);
    EXPECT_TRUE(huge.Send(std::string(100'000, 'x') + "\n"));
    EXPECT_EQ(huge.ReceiveAll(), UNKNOWN);
    // The longest request.
    const std::string name(REQUEST_SIZE - 8, 'n');
    EXPECT_EQ(AskStatus(path_, "status " + name), name + ",0\n");
    EXPECT_EQ(AskStatus(path_, "status " + name + "n"), UNKNOWN);
    // A client that goes away before its request is complete is no slow client.
    { const StatusClient gone(path_); }
    EXPECT_EQ(partial.ReceiveAll(), "");
    EXPECT_EQ(silent.ReceiveAll(), "");
    EXPECT_TRUE(WaitForDropped(2));
    Stop();
}

TEST_F(Server, ASlowReaderIsDroppedAndHoldsUpNobody) {
    Start();
    const StatusClient slow(path_);
    EXPECT_TRUE(slow.Send("status huge\n"));
    EXPECT_TRUE(WaitUntil([&] { return answers_ == 1; }));
    EXPECT_EQ(AskStatus(path_, "status x"), "x,0\n");
    EXPECT_TRUE(WaitForDropped(1));
    EXPECT_LT(slow.ReceiveAll()->size(), size_t{8} << 20);
    // One that reads gets everything.
    EXPECT_EQ(AskStatus(path_, "status huge").size(), (size_t{8} << 20) + 1);
    // The stop does not wait for a slow reader.
    const StatusClient again(path_);
    EXPECT_TRUE(again.Send("status huge\n"));
    EXPECT_TRUE(WaitUntil([&] { return answers_ == 4; }));
    Stop();
}

TEST_F(Server, AtMostSixteenClients) {
    Start();
    std::vector<std::unique_ptr<StatusClient>> clients;
    for (int i = 0; i < 16; ++i) {
        clients.push_back(std::make_unique<StatusClient>(path_));
    }
    const StatusClient seventeenth(path_);
    EXPECT_EQ(seventeenth.ReceiveAll(), "");
    EXPECT_EQ(server_->GetCounters().refused, 1U);
    EXPECT_TRUE(clients[15]->Send("status\n"));
    EXPECT_EQ(clients[15]->ReceiveAll(), ",0\n");
    EXPECT_EQ(AskStatus(path_, "status"), ",0\n") << "there is room again";
    Stop();
}

TEST_F(Server, AFailureCostsOnlyItsClientAndFloodsCostLittle) {
    Start();
    EXPECT_EQ(AskStatus(path_, "status fails"), "");
    EXPECT_TRUE(
        LogCapture::ContainsPart(LOG_ERR, "a client of the status endpoint gets no answer"));
    const int before = answers_;
    const SteadyTime begin = std::chrono::steady_clock::now();
    int asked = 0;
    while (std::chrono::steady_clock::now() < begin + 200ms) {
        asked += AskStatus(path_, "status") == ",0\n" ? 1 : 0;
    }
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(asked, 0);
    EXPECT_LE(answers_ - before, elapsed / 20ms + 1) << "a document serves 20 ms";
    Stop();
}

TEST_F(Server, OnlyRootAndTheGroupMayAsk) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may change users";
    }
    Start("daemon");
    EXPECT_EQ(AskStatus(path_, "status"), ",0\n");
    struct stat status {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & ALLPERMS, 0660U);
    EXPECT_EQ(status.st_gid, DAEMON_GROUP);
    EXPECT_EQ(AnswerTo(65534, DAEMON_GROUP), 0);
    EXPECT_EQ(AnswerTo(65534, 65534), EACCES);
    // The file lets everybody in: the server itself refuses.
    ASSERT_EQ(chmod(path_.c_str(), 0666), 0);
    EXPECT_EQ(AnswerTo(65534, 65534), 1);
    EXPECT_EQ(server_->GetCounters().refused, 1U);
    Stop();
    EXPECT_TRUE(Wire::IsPermitted({5, 5, {3, DAEMON_GROUP}}, 0, DAEMON_GROUP));
    EXPECT_FALSE(Wire::IsPermitted({5, 5, {3, 4}}, 0, DAEMON_GROUP));
    EXPECT_FALSE(Wire::IsPermitted({5, 5, {0}}, 0, std::nullopt));

    Start("no-such-group");
    EXPECT_EQ(AskStatus(path_, "status"), ",0\n");
    EXPECT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & ALLPERMS, 0600U);
    EXPECT_TRUE(
        LogCapture::ContainsPart(LOG_ERR, "the group no-such-group of the status endpoint"));
    Stop();
}

TEST_F(Server, ReplacesALeftOverSocketButNoOtherFile) {
    Start();
    EXPECT_EQ(AskStatus(path_, "status"), ",0\n");
    // What a killed daemon leaves.
    const Tests::RawListener left(directory_ / "run/left.sock");
    std::filesystem::rename(directory_ / "run/left.sock", path_);
    std::optional<StatusServer> second;
    second.emplace([](const Request&) { return "second\n"; });
    second->Start(path_, "");
    EXPECT_TRUE(WaitUntil([&] { return AskStatus(path_, "status") == "second\n"; }));
    // The first one does not remove the socket of the second one.
    server_->Stop();
    EXPECT_TRUE(server_->Join(SteadyTime::max()));
    EXPECT_EQ(AskStatus(path_, "status"), "second\n");
    second.reset();

    Tests::WriteFile(path_, "text");
    Start();
    EXPECT_TRUE(server_->Join(std::chrono::steady_clock::now() + PATIENCE)) << "it ends by itself";
    EXPECT_EQ(Tests::ReadFile(path_), "text");
    EXPECT_EQ(LogCapture::Lines().back().text,
              "PROCMGR : the status socket " + path_ +
                  " cannot be made, rename failed, errno=" + std::to_string(EEXIST));
}

}  // namespace
}  // namespace ProcMgr::Status
