#include "channel/muxa_retry.h"

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

std::vector<Wrapper> Wrappers() {
    static MuxaRequest request;
    static MuxaResponse responses[3];
    const milliseconds shortPause(5);
    return {
        {Call::SEND, -11, -16, 401, shortPause, [] { return ProcMgrMuxaSendRequest(7, &request); }},
        {Call::RESPOND, -11, -16, 401, shortPause,
         [] { return ProcMgrMuxaSendResponse(7, &responses[0]); }},
        {Call::RPC, -11, -16, 401, shortPause,
         [] { return ProcMgrMuxaRPCSync(7, &request, &responses[1]); }},
        {Call::TIMED_RPC, -11, -16, 401, shortPause,
         [] { return ProcMgrMuxaTimedRPCSync(7, &request, &responses[2], 250); }},
        {Call::CLOSE, -16, -11, 10, milliseconds(100), [] { return ProcMgrMuxaClosePipe(7); }},
    };
}

class MuxaRetry : public testing::Test {
protected:
    void SetUp() override { FakeMuxa::Get().Reset(); }

    // The wrappers are exercised side by side, because each takes its time.
    static void ForEach(const std::function<void(const Wrapper&)>& body) {
        std::vector<std::thread> threads;
        for (const Wrapper& wrapper : Wrappers()) {
            threads.emplace_back([&body, wrapper] { body(wrapper); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
};

TEST_F(MuxaRetry, RetriesUpToTheLastAttempt) {
    ForEach([](const Wrapper& wrapper) {
        const auto pauses = static_cast<int>(wrapper.attempts) - 1;
        FakeMuxa::Get().Push(wrapper.call, wrapper.retried, pauses);
        FakeMuxa::Get().Push(wrapper.call, 3);
        const auto begin = steady_clock::now();
        EXPECT_EQ(wrapper.run(), 3);
        EXPECT_GE(steady_clock::now() - begin, pauses * wrapper.pause);
        EXPECT_EQ(FakeMuxa::Get().Count(wrapper.call), wrapper.attempts);

        FakeMuxa::Get().SetDefault(wrapper.call, wrapper.retried);
        EXPECT_EQ(wrapper.run(), wrapper.retried);
        EXPECT_EQ(FakeMuxa::Get().Count(wrapper.call), 2 * wrapper.attempts);
    });
}

TEST_F(MuxaRetry, OtherFailuresAreFinal) {
    for (const Wrapper& wrapper : Wrappers()) {
        size_t calls = 0;
        for (const int failure : {-32, wrapper.other}) {
            FakeMuxa::Get().Push(wrapper.call, failure);
            EXPECT_EQ(wrapper.run(), failure);
            EXPECT_EQ(FakeMuxa::Get().Count(wrapper.call), ++calls);
        }
    }
}

}  // namespace
}  // namespace ProcMgr
