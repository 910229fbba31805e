#include "main/common/muxa_retry.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "tests/fakes/fake_muxa.h"

namespace ProcMgr {
namespace {

using Fakes::FakeMuxa;
using Call = FakeMuxa::Call;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The calls are made side by side, because each takes one or two seconds.
TEST(MuxaRetry, RetriesOneFailureUpToTheLastAttempt) {
    FakeMuxa::Get().Reset();
    MuxaRequest request;
    MuxaResponse response;
    const struct {
        Call call;
        int retried;
        int other;  // a failure after which another call of the library is retried
        size_t attempts;
        milliseconds pause;
        std::function<int()> run;
    } cases[] = {
        {Call::SEND, -11, -16, 401, milliseconds(5),
         [&] { return ProcMgrMuxaSendRequest(7, &request); }},
        {Call::RESPOND, -11, -16, 401, milliseconds(5),
         [&] { return ProcMgrMuxaSendResponse(7, &response); }},
        {Call::CLOSE, -16, -11, 10, milliseconds(100), [] { return ProcMgrMuxaClosePipe(7); }},
    };
    std::vector<std::thread> threads;
    for (const auto& test : cases) {
        threads.emplace_back([&test] {
            FakeMuxa::Get().Push(test.call, test.other);
            EXPECT_EQ(test.run(), test.other);
            FakeMuxa::Get().Push(test.call, test.retried);
            FakeMuxa::Get().Push(test.call, 3);
            EXPECT_EQ(test.run(), 3);
            FakeMuxa::Get().SetDefault(test.call, test.retried);
            const auto begin = steady_clock::now();
            EXPECT_EQ(test.run(), test.retried);
            EXPECT_EQ(FakeMuxa::Get().Count(test.call), 3 + test.attempts);
            EXPECT_GE(steady_clock::now() - begin, (test.attempts - 1) * test.pause);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace ProcMgr
