// The callback of a pipe or of a server. The gate counts the running calls, so that closing can
// refuse while a call runs and no call starts once closing has begun. Used by the channels, which
// call, and by the endpoint, which closes.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/messaging.h"
#include "wire/mutex.h"

namespace PlatformHost {

// Thread-safe; the lock is not held during a callback.
class MuxaGate {
public:
    MuxaGate(std::string name, MuxaCallback callback)
        : name_(std::move(name)), callback_(std::move(callback)) {}

    // Runs the callback, unless closing has begun. An exception of the callback is logged.
    void Call(int32_t fd, const MuxaRequest* request);

    // Closes for good: 0, -16 while the callback is running, -9 when closed already. No call starts
    // after the first attempt, whatever its result.
    int32_t Close();

    bool IsClosing();

private:
    const std::string name_;
    const MuxaCallback callback_;
    Wire::Mutex lock_;
    uint32_t running_ PROCMGR_GUARDED_BY(lock_) = 0;
    bool isClosing_ PROCMGR_GUARDED_BY(lock_) = false;
    bool isClosed_ PROCMGR_GUARDED_BY(lock_) = false;
};

}  // namespace PlatformHost
