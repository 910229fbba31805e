#include "main/common/muxa_retry.h"

#include <algorithm>
#include <chrono>

#include "main/common/mutex.h"

namespace ProcMgr {
namespace {

struct RetryRule {
    int result;  // after which another attempt is made
    int attempts;
    std::chrono::milliseconds pause;
};

constexpr RetryRule SEND_RULE{MUXA_TRY_AGAIN, SEND_ATTEMPTS, SEND_PAUSE};
constexpr RetryRule CLOSE_RULE{MUXA_BUSY, 10, std::chrono::milliseconds(100)};

template <typename Call>
int Retry(const RetryRule& rule, Call call, SteadyTime end = SteadyTime::max()) {
    MayWait("a peer");
    int result = call();
    for (int attempt = 1; attempt < rule.attempts && result == rule.result; ++attempt) {
        const std::chrono::nanoseconds left = end - std::chrono::steady_clock::now();
        if (left <= left.zero()) {
            break;
        }
        SleepFor(std::min<std::chrono::nanoseconds>(rule.pause, left));
        result = call();
    }
    return result;
}

}  // namespace

int ProcMgrMuxaSendRequest(int fd, const MuxaRequest* request) {
    return Retry(SEND_RULE, [=] { return MuxaSendRequest(fd, request); });
}

int ProcMgrMuxaSendResponse(int fd, const MuxaResponse* response) {
    return Retry(SEND_RULE, [=] { return MuxaSendResponse(fd, response); });
}

int ProcMgrMuxaRPCSync(int fd, MuxaRequest* request, MuxaResponse* response) {
    return Retry(SEND_RULE, [=] { return MuxaRPCSync(fd, request, response); });
}

int ProcMgrMuxaTimedRPCSync(int fd, MuxaRequest* request, MuxaResponse* response, int timeout) {
    return Retry(SEND_RULE, [=] { return MuxaTimedRPCSync(fd, request, response, timeout); });
}

int ProcMgrMuxaClosePipe(int fd) {
    return ProcMgrMuxaClosePipeBy(fd, SteadyTime::max());
}

int ProcMgrMuxaClosePipeBy(int fd, SteadyTime end) {
    return Retry(
        CLOSE_RULE, [=] { return MuxaClosePipe(fd); }, end);
}

}  // namespace ProcMgr
