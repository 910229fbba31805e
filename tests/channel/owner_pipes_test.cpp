#include "channel/owner_pipes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
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

    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}};
};

TEST_F(OwnerPipesTest, OpeningIsTriedOnceMoreOnly) {
    const struct {
        std::vector<int32_t> results;
        size_t attempts;
        int32_t fd;  // -1: failure
    } cases[] = {{{-11, 200}, 2, 200}, {{-11, -11, 201}, 2, -1}, {{-98}, 1, -1}, {{0}, 1, -1}};
    for (const auto& [results, attempts, fd] : cases) {
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        for (const int32_t result : results) {
            FakeMuxa::Get().Push(Call::OPEN, result);
        }
        FakeMuxa::Get().SetHook(Call::OPEN, [](int32_t) { errno = ENFILE; });
        EXPECT_EQ(pipes_.RegServiceCallBack("owner", 0), fd > 0);
        EXPECT_EQ(pipes_.GetServiceFd("owner"), fd);
        EXPECT_EQ(FakeMuxa::Get().Count(Call::OPEN), attempts);
        EXPECT_EQ(
            LogCapture::Contains(LOG_ERR, "PROCMGR : RegServiceCallBack failed!! ret=" +
                                              std::to_string(results[attempts - 1]) + ", errno=23"),
            fd < 0);
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
    const struct {
        int busy;
        int32_t last;
        size_t attempts;
        const char* line;
    } cases[] = {
        {19, 0, 20, "PROCMGR : Master UnRegServiceCallBack success proName: owner fd: "},
        {1, -9, 2,
         "PROCMGR : Master UnRegServiceCallBack failed: MuxaClosePipe failed err code: -9"},
    };
    for (const auto& [busy, last, attempts, line] : cases) {
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
        const int fd = pipes_.GetServiceFd("owner");
        FakeMuxa::Get().Push(Call::CLOSE, -16, busy);
        FakeMuxa::Get().Push(Call::CLOSE, last);
        pipes_.UnRegServiceCallBack("owner");
        EXPECT_EQ(FakeMuxa::Get().Closes(), std::vector<int32_t>(attempts, fd));
        EXPECT_EQ(pipes_.GetServiceFd("owner"), -1);
        EXPECT_TRUE(LogCapture::ContainsPart(last < 0 ? LOG_ERR : LOG_INFO, line)) << line;
    }
}

TEST_F(OwnerPipesTest, APipeThatStaysBusyServesTheNextProcessOrIsClosedLater) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 0));
    const int fd = pipes_.GetServiceFd("owner");
    FakeMuxa::Get().Push(Call::CLOSE, -16, 20 + 1);
    pipes_.UnRegServiceCallBack("owner");
    EXPECT_EQ(pipes_.GetServiceFd("owner"), -1);
    EXPECT_TRUE(pipes_.RegServiceCallBack("owner", 0)) << "the name is still taken, by itself";
    EXPECT_EQ(pipes_.GetServiceFd("owner"), fd);
    EXPECT_EQ(FakeMuxa::Get().Opens().size(), 1U);

    FakeMuxa::Get().Push(Call::CLOSE, -16, 20 + 10 + 1);
    pipes_.UnRegServiceCallBack("owner");
    EXPECT_EQ(FakeMuxa::Get().OpenFds().size(), 1U);
    pipes_.CloseAll();
    EXPECT_TRUE(FakeMuxa::Get().OpenFds().empty()) << "its handler may run on";
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
