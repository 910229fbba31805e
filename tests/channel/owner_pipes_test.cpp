#include "channel/owner_pipes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::FakeMuxa;
using Fakes::LogCapture;
using Call = FakeMuxa::Call;

class OwnerPipesTest : public testing::Test {
protected:
    void SetUp() override {
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        setenv("PROC_NAME", "PROCMGR", 1);
    }
    void TearDown() override { FakeMuxa::Get().Reset(); }

    std::vector<std::tuple<int32_t, bool, std::string>> received_;
    OwnerPipes pipes_{[this](int32_t fd, const MuxaRequest* request, const std::string& owner) {
        received_.emplace_back(fd, request != nullptr, owner);
    }};
};

TEST_F(OwnerPipesTest, OpensThePipeToTheNamedOwner) {
    EXPECT_EQ(pipes_.GetServiceFd("vintor"), -1);
    ASSERT_TRUE(pipes_.RegServiceCallBack("vintor", 4711));

    const auto opens = FakeMuxa::Get().Opens();
    ASSERT_EQ(opens.size(), 1U);
    const MuxaOpenAttributes& attributes = opens[0].attributes;
    EXPECT_EQ(attributes.name, "vintor");
    EXPECT_EQ(attributes.value, 4711U);
    EXPECT_EQ(attributes.isPersistent, 1);

    const int fd = opens[0].result;
    EXPECT_EQ(pipes_.GetServiceFd("vintor"), fd);
    EXPECT_TRUE(LogCapture::Contains(
        LOG_INFO, "********* PROCMGR : RegServiceCallBack success fd=" + std::to_string(fd) +
                      ", targetProcName=vintor"));

    const char byte = 0;
    FakeMuxa::Get().Receive(fd, &byte, 1);
    FakeMuxa::Get().PeerGone(fd);
    const decltype(received_) expected{{fd, true, "vintor"}, {fd, false, "vintor"}};
    EXPECT_EQ(received_, expected);
    EXPECT_EQ(pipes_.GetServiceFd("vintor"), fd) << "a peer that goes does not close the pipe";
}

TEST_F(OwnerPipesTest, OpeningIsTriedOnceMoreOnly) {
    struct Case {
        std::vector<int32_t> results;
        int32_t fd;  // -1: failure
    };
    const Case cases[] = {{{-11, 200}, 200}, {{-11, -11, 201}, -1}, {{-98}, -1}, {{0}, -1}};
    for (const Case& testCase : cases) {
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        for (const int32_t result : testCase.results) {
            FakeMuxa::Get().Push(Call::OPEN, result);
        }
        FakeMuxa::Get().SetHook(Call::OPEN, [](int32_t) { errno = ENFILE; });
        EXPECT_EQ(pipes_.RegServiceCallBack("owner", 0), testCase.fd > 0);
        EXPECT_EQ(pipes_.GetServiceFd("owner"), testCase.fd);
        const size_t attempts = testCase.results[0] == -11 ? 2 : 1;
        const int32_t last = testCase.results[attempts - 1];
        EXPECT_EQ(FakeMuxa::Get().Count(Call::OPEN), attempts);
        EXPECT_EQ(LogCapture::Count(LOG_ERR, "PROCMGR : MuxaOpen failed, try again"), attempts - 1);
        EXPECT_EQ(LogCapture::Contains(
                      LOG_ERR, "PROCMGR : RegServiceCallBack failed!! ret=" + std::to_string(last) +
                                   ", errno=" + std::to_string(ENFILE)),
                  testCase.fd < 0);
        pipes_.UnRegServiceCallBack("owner");
    }
}

TEST_F(OwnerPipesTest, RegisteringAgainClosesTheEarlierPipeFirst) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
    const int first = pipes_.GetServiceFd("owner");
    std::vector<std::string> order;
    FakeMuxa::Get().SetHook(Call::OPEN, [&](int32_t) { order.emplace_back("open"); });
    FakeMuxa::Get().SetHook(Call::CLOSE,
                            [&](int32_t fd) { order.push_back("close " + std::to_string(fd)); });

    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
    EXPECT_EQ(order, (std::vector<std::string>{"close " + std::to_string(first), "open"}));
    const int second = pipes_.GetServiceFd("owner");
    EXPECT_EQ(FakeMuxa::Get().OpenFds(), std::vector<int32_t>{second});

    FakeMuxa::Get().Push(Call::OPEN, -98);
    EXPECT_FALSE(pipes_.RegServiceCallBack("owner", 0));
    EXPECT_EQ(pipes_.GetServiceFd("owner"), -1);
    EXPECT_TRUE(FakeMuxa::Get().OpenFds().empty());
}

TEST_F(OwnerPipesTest, UnregisteringWaitsForABusyPipe) {
    struct Case {
        int busy;
        int32_t last;
        size_t attempts;
    };
    const Case cases[] = {{0, 0, 1}, {19, 0, 20}, {1, -9, 2}};
    for (const auto& [busy, last, attempts] : cases) {
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
        const int fd = pipes_.GetServiceFd("owner");
        FakeMuxa::Get().Push(Call::CLOSE, -16, busy);
        FakeMuxa::Get().Push(Call::CLOSE, last);
        pipes_.UnRegServiceCallBack("owner");
        EXPECT_EQ(FakeMuxa::Get().Closes(), std::vector<int32_t>(attempts, fd));
        EXPECT_EQ(pipes_.GetServiceFd("owner"), -1);
        const auto line = last >= 0 ? "PROCMGR : Master UnRegServiceCallBack success proName: "
                                      "owner fd: " +
                                          std::to_string(fd)
                                    : "PROCMGR : Master UnRegServiceCallBack failed: MuxaClosePipe "
                                      "failed err code: " +
                                          std::to_string(last);
        EXPECT_TRUE(LogCapture::Contains(last >= 0 ? LOG_INFO : LOG_ERR, line)) << line;
    }
}

TEST_F(OwnerPipesTest, APipeThatStaysBusyIsClosedLater) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
    FakeMuxa::Get().Push(Call::CLOSE, -16, 20 + 10 + 1);
    pipes_.UnRegServiceCallBack("owner");
    EXPECT_EQ(FakeMuxa::Get().OpenFds().size(), 1U);
    pipes_.CloseAll();
    EXPECT_TRUE(FakeMuxa::Get().OpenFds().empty()) << "its handler may run on";
}

TEST_F(OwnerPipesTest, APipeThatStaysBusyServesTheOwnersNextProcess) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
    const int fd = pipes_.GetServiceFd("owner");
    FakeMuxa::Get().Push(Call::CLOSE, -16, 20 + 1);
    pipes_.UnRegServiceCallBack("owner");
    EXPECT_EQ(pipes_.GetServiceFd("owner"), -1);
    EXPECT_TRUE(pipes_.RegServiceCallBack("owner", 0)) << "the name is still taken, by itself";
    EXPECT_EQ(pipes_.GetServiceFd("owner"), fd);
    EXPECT_EQ(FakeMuxa::Get().Opens().size(), 1U);
}

TEST_F(OwnerPipesTest, SendersWaitWhileAPipeIsBeingOpened) {
    std::future<int> lookup;
    FakeMuxa::Get().SetHook(Call::OPEN, [&](int32_t) {
        lookup = std::async(std::launch::async, [this] { return pipes_.GetServiceFd("owner"); });
        EXPECT_EQ(lookup.wait_for(50ms), std::future_status::timeout);
    });
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
    EXPECT_EQ(lookup.get(), FakeMuxa::Get().FdOf("owner"));
}

}  // namespace
}  // namespace ProcMgr
