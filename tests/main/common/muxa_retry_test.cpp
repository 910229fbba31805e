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

struct Wrapper {
    Call call;
    int retried;
    int other;  // a failure that another wrapper retries
    size_t attempts;
    milliseconds pause;
    std::function<int()> run;
};

// Side by side, because each takes its time.
TEST(MuxaRetry, RetriesOneFailureUpToTheLastAttempt) {
    FakeMuxa::Get().Reset();
    MuxaRequest request;
    MuxaResponse responses[3];
    const milliseconds pause(5);
    const Wrapper wrappers[] = {
        {Call::SEND, -11, -16, 401, pause, [&] { return ProcMgrMuxaSendRequest(7, &request); }},
        {Call::RESPOND, -11, -16, 401, pause,
         [&] { return ProcMgrMuxaSendResponse(7, &responses[0]); }},
        {Call::RPC, -11, -16, 401, pause,
         [&] { return ProcMgrMuxaRPCSync(7, &request, &responses[1]); }},
        {Call::TIMED_RPC, -11, -16, 401, pause,
         [&] { return ProcMgrMuxaTimedRPCSync(7, &request, &responses[2], 250); }},
        {Call::CLOSE, -16, -11, 10, milliseconds(100), [] { return ProcMgrMuxaClosePipe(7); }},
    };
    std::vector<std::thread> threads;
    for (const Wrapper& wrapper : wrappers) {
        threads.emplace_back([&wrapper] {
            for (const int failure : {-32, wrapper.other}) {
                FakeMuxa::Get().Push(wrapper.call, failure);
                EXPECT_EQ(wrapper.run(), failure);
            }
            EXPECT_EQ(FakeMuxa::Get().Count(wrapper.call), 2U);

            FakeMuxa::Get().SetDefault(wrapper.call, wrapper.retried);
            const auto begin = steady_clock::now();
            EXPECT_EQ(wrapper.run(), wrapper.retried);
            EXPECT_EQ(FakeMuxa::Get().Count(wrapper.call), 2 + wrapper.attempts);
            EXPECT_GE(steady_clock::now() - begin, (wrapper.attempts - 1) * wrapper.pause);

            FakeMuxa::Get().Push(wrapper.call, wrapper.retried);
            FakeMuxa::Get().Push(wrapper.call, 3);
            EXPECT_EQ(wrapper.run(), 3);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace ProcMgr
