// The messaging library's calls with the daemon's fixed retries, for every room that sends or
// closes. Callable from any thread; each blocks while it retries, for 2 s at most, and returns the
// last result of the wrapped call.
#pragma once

#include <chrono>

#include "main/common/clock.h"
#include "platform/messaging.h"

namespace ProcMgr {

// Results of the library that are worth another attempt.
inline constexpr int MUXA_TRY_AGAIN = -11;
inline constexpr int MUXA_BUSY = -16;

// How often a send is attempted, and the pause between two attempts.
inline constexpr int SEND_ATTEMPTS = 401;
inline constexpr std::chrono::milliseconds SEND_PAUSE{5};

int ProcMgrMuxaSendRequest(int fd, const MuxaRequest* request);
int ProcMgrMuxaSendResponse(int fd, const MuxaResponse* response);
int ProcMgrMuxaRPCSync(int fd, MuxaRequest* request, MuxaResponse* response);
int ProcMgrMuxaTimedRPCSync(int fd, MuxaRequest* request, MuxaResponse* response, int timeout);
int ProcMgrMuxaClosePipe(int fd);
// The same, with no attempt after `end` but one right then.
int ProcMgrMuxaClosePipeBy(int fd, SteadyTime end);

}  // namespace ProcMgr
