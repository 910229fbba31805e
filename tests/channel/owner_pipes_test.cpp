#include "channel/owner_pipes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
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

    std::vector<std::string> opened_;
    OwnerPipes pipes_{
        [](int32_t, const MuxaRequest*, const std::string&) {},
        {.onOpen = [this](const std::string& owner) { opened_.push_back(owner); }, .onBusy = {}}};
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
        EXPECT_EQ(pipes_.RegServiceCallBack("owner", 33, 44), fd > 0);
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
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
    const int first = pipes_.GetServiceFd("owner");
    std::vector<std::string> order;
    FakeMuxa::Get().SetHook(Call::OPEN, [&](int32_t) { order.emplace_back("open"); });
    FakeMuxa::Get().SetHook(Call::CLOSE,
                            [&](int32_t fd) { order.push_back("close " + std::to_string(fd)); });

    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
    EXPECT_EQ(order, (std::vector<std::string>{"close " + std::to_string(first), "open"}));
    const int second = pipes_.GetServiceFd("owner");
    EXPECT_EQ(FakeMuxa::Get().OpenFds(), std::vector<int32_t>{second});

    FakeMuxa::Get().Push(Call::OPEN, -98);
    EXPECT_FALSE(pipes_.RegServiceCallBack("owner", 33, 44));
    EXPECT_EQ(pipes_.GetServiceFd("owner"), -1);
    EXPECT_TRUE(FakeMuxa::Get().OpenFds().empty());
}

TEST_F(OwnerPipesTest, ABusyPipeIsClosedLaterAndItsSuccessorOpenedThen) {
    const struct {
        int busy;
        int32_t last;
        const char* line;
    } cases[] = {
        {19, 0, "PROCMGR : Master UnRegServiceCallBack success proName: owner fd: "},
        {20, 0, "PROCMGR : Master UnRegServiceCallBack failed: MuxaClosePipe failed err code: -16"},
        {1, -9, "PROCMGR : Master UnRegServiceCallBack failed: MuxaClosePipe failed err code: -9"},
    };
    for (const auto& [busy, last, line] : cases) {
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        opened_.clear();
        ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
        const int fd = pipes_.GetServiceFd("owner");
        FakeMuxa::Get().Push(Call::CLOSE, -16, busy);
        FakeMuxa::Get().Push(Call::CLOSE, last);
        ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 55));
        EXPECT_EQ(pipes_.GetServiceFd("owner"), -1) << "the name is still taken";
        int attempts = 1;
        for (auto due = pipes_.NextClose(); due; due = pipes_.NextClose()) {
            pipes_.CloseBusy(*due - 1ms);
            pipes_.CloseBusy(*due);
            ++attempts;
        }
        EXPECT_EQ(FakeMuxa::Get().Closes(), std::vector<int32_t>(busy + 1, fd));
        EXPECT_EQ(attempts, busy + 1);
        EXPECT_TRUE(LogCapture::ContainsPart(busy == 19 ? LOG_INFO : LOG_ERR, line)) << line;
        EXPECT_EQ(FakeMuxa::Get().Opens().back().attributes.pid, 55);
        EXPECT_EQ(opened_, (std::vector<std::string>{"owner", "owner"}));
        pipes_.UnRegServiceCallBack("owner");
    }
}

TEST_F(OwnerPipesTest, ASuccessorThatIsGoneAgainIsNotOpened) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
    FakeMuxa::Get().Push(Call::CLOSE, -16);
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 55));
    pipes_.UnRegServiceCallBack("owner");
    pipes_.CloseBusy(SteadyTime::max());
    EXPECT_EQ(FakeMuxa::Get().Opens().size(), 1U);
    EXPECT_TRUE(FakeMuxa::Get().OpenFds().empty());
}

TEST_F(OwnerPipesTest, TheEndWaitsForBusyPipesNoLongerThanItMay) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
    FakeMuxa::Get().SetDefault(Call::CLOSE, -16);
    EXPECT_FALSE(pipes_.CloseAll(std::chrono::steady_clock::now() + 20ms));
    EXPECT_TRUE(LogCapture::Contains(
        LOG_ERR, "PROCMGR : a request of owner=owner is still being handled, it is left"));
}

}  // namespace
}  // namespace ProcMgr
