#include "channel/owner_pipes.h"

#include <gmock/gmock.h>

#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::FakeMuxa;
using Fakes::LogCapture;
using testing::ElementsAre;
using Call = FakeMuxa::Call;

class OwnerPipesTest : public testing::Test, public PipeEvents {
protected:
    OwnerPipesTest() {
        setenv("PROC_NAME", "PROCMGR", 1);
        Reset();
    }
    ~OwnerPipesTest() override { FakeMuxa::Get().Reset(); }
    void OnPipeOpen(const std::string& owner) override { events_.push_back(owner); }
    void OnPipeBusy() override { events_.emplace_back("busy"); }

    void Reset() {
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        events_.clear();
    }

    std::vector<std::string> events_;
    OwnerPipes pipes_{[](int32_t, const MuxaRequest*, const std::string&) {}, this};
};

TEST_F(OwnerPipesTest, OpeningIsTriedOnceMoreOnly) {
    const struct {
        std::vector<int32_t> results;
        size_t attempts;
        int32_t fd;  // -1: failure
    } cases[] = {{{-11, 200}, 2, 200}, {{-11, -11, 201}, 2, -1}, {{-98}, 1, -1}, {{0}, 1, -1}};
    for (const auto& [results, attempts, fd] : cases) {
        Reset();
        for (const int32_t result : results) {
            FakeMuxa::Get().Push(Call::OPEN, result);
        }
        FakeMuxa::Get().SetHook(Call::OPEN, [](int32_t) { errno = ENFILE; });
        EXPECT_EQ(pipes_.RegServiceCallBack("owner", 33, 44), fd > 0);
        EXPECT_EQ(pipes_.GetServiceFd("owner"), fd);
        EXPECT_EQ(FakeMuxa::Get().Count(Call::OPEN), attempts);
        const std::string ret = std::to_string(results[attempts - 1]);
        EXPECT_EQ(LogCapture::Contains(
                      LOG_ERR, "PROCMGR : RegServiceCallBack failed!! ret=" + ret + ", errno=23"),
                  fd < 0);
        pipes_.UnRegServiceCallBack("owner");
    }
}

TEST_F(OwnerPipesTest, RegisteringAgainClosesTheEarlierPipeFirst) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
    const int first = pipes_.GetServiceFd("owner");
    std::vector<int32_t> closedBefore;
    FakeMuxa::Get().SetHook(Call::OPEN, [&](int32_t) { closedBefore = FakeMuxa::Get().Closes(); });
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
    EXPECT_THAT(closedBefore, ElementsAre(first));
    EXPECT_THAT(FakeMuxa::Get().OpenFds(), ElementsAre(pipes_.GetServiceFd("owner")));

    FakeMuxa::Get().Push(Call::OPEN, -98);
    EXPECT_FALSE(pipes_.RegServiceCallBack("owner", 33, 44));
    EXPECT_EQ(pipes_.GetServiceFd("owner"), -1);
    EXPECT_TRUE(FakeMuxa::Get().OpenFds().empty());
}

TEST_F(OwnerPipesTest, ABusyPipeIsClosedLaterAndItsSuccessorOpenedThen) {
    const std::string closed = "PROCMGR : Master UnRegServiceCallBack ";
    const struct {
        int busy;
        int32_t last;
        std::string line;
    } cases[] = {{19, 0, closed + "success proName: owner fd: "},
                 {20, 0, closed + "failed: MuxaClosePipe failed err code: -16"},
                 {1, -9, closed + "failed: MuxaClosePipe failed err code: -9"}};
    for (const auto& [busy, last, line] : cases) {
        Reset();
        ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
        const int fd = pipes_.GetServiceFd("owner");
        FakeMuxa::Get().Push(Call::CLOSE, -16, busy);
        FakeMuxa::Get().Push(Call::CLOSE, last);
        ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 55));
        EXPECT_EQ(pipes_.GetServiceFd("owner"), -1) << "the name is still in use";
        for (auto due = pipes_.NextClose(); due; due = pipes_.NextClose()) {
            const size_t before = FakeMuxa::Get().Count(Call::CLOSE);
            pipes_.CloseBusy(*due - 1ms);
            EXPECT_EQ(FakeMuxa::Get().Count(Call::CLOSE), before);
            pipes_.CloseBusy(*due);
        }
        EXPECT_EQ(FakeMuxa::Get().Closes(),
                  std::vector<int32_t>(static_cast<size_t>(busy) + 1, fd));
        EXPECT_TRUE(LogCapture::ContainsPart(busy == 19 ? LOG_INFO : LOG_ERR, line)) << line;
        EXPECT_EQ(FakeMuxa::Get().Opens().back().attributes.pid, 55);
        EXPECT_THAT(events_, ElementsAre("owner", "busy", "owner"));
        pipes_.UnRegServiceCallBack("owner");
    }
}

TEST_F(OwnerPipesTest, ASuccessorThatIsUnregisteredAgainIsNotOpened) {
    pipes_.RegServiceCallBack("owner", 33, 44);
    FakeMuxa::Get().Push(Call::CLOSE, -16);
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 55));
    pipes_.UnRegServiceCallBack("owner");
    pipes_.CloseBusy(SteadyTime::max());
    EXPECT_EQ(FakeMuxa::Get().Opens().size(), 1U);
    EXPECT_TRUE(FakeMuxa::Get().OpenFds().empty());
}

TEST_F(OwnerPipesTest, TheEndWaitsForBusyPipesUntilItsDeadline) {
    ASSERT_TRUE(pipes_.RegServiceCallBack("owner", 33, 44));
    FakeMuxa::Get().SetDefault(Call::CLOSE, -16);
    EXPECT_FALSE(pipes_.CloseAll(std::chrono::steady_clock::now() + 20ms));
    EXPECT_TRUE(LogCapture::Contains(
        LOG_ERR,
        "PROCMGR : a request of owner=owner is still being handled, its pipe is left open"));
}

}  // namespace
}  // namespace ProcMgr
