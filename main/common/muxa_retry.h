// The calls of the messaging library with the daemon's fixed retries. Each call blocks while it
// retries, for 2 s at most, and returns the last result of the library. Callable from any thread,
// without a lock.
#pragma once

#include <chrono>

#include "main/common/clock.h"
#include "platform/messaging.h"

namespace ProcMgr {

// The results of the library after which another attempt is made.
inline constexpr int MUXA_TRY_AGAIN = -11;
inline constexpr int MUXA_BUSY = -16;

// The number of attempts to send, and the pause between two of them.
inline constexpr int SEND_ATTEMPTS = 401;
inline constexpr std::chrono::milliseconds SEND_PAUSE{5};

// The daemon itself calls only ProcMgrMuxaSendResponse() and ProcMgrMuxaClosePipeBy(): reports are
// sent by ReportSender, which retries without blocking. The other functions are for code outside
// the daemon that may block, for example a start-up sequence of the platform.
int ProcMgrMuxaSendRequest(int fd, const MuxaRequest* request);
int ProcMgrMuxaSendResponse(int fd, const MuxaResponse* response);
int ProcMgrMuxaRPCSync(int fd, MuxaRequest* request, MuxaResponse* response);
int ProcMgrMuxaTimedRPCSync(int fd, MuxaRequest* request, MuxaResponse* response, int timeout);
int ProcMgrMuxaClosePipe(int fd);
// The same with a deadline: when `end` comes during a pause, one last attempt is made at once.
int ProcMgrMuxaClosePipeBy(int fd, SteadyTime end);

}  // namespace ProcMgr
