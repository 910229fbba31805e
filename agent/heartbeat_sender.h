// Sends the heartbeats of a service to the daemon from a thread of its own, so that the daemon does
// not take a busy service for one that hangs. Used by OwnerChannel.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "wire/mutex.h"

namespace ProcMgr::Agent {

// Thread-safe. The daemon accepts a beat only from the process that it has started as the service.
class HeartbeatSender {
public:
    explicit HeartbeatSender(std::string serviceName);
    ~HeartbeatSender();
    HeartbeatSender(const HeartbeatSender&) = delete;
    HeartbeatSender& operator=(const HeartbeatSender&) = delete;

    // Sends a beat now and then one every `period`. When beats are being sent already, only the
    // period changes, at once. A beat is lost while the daemon is absent or does not read. False
    // when the period is not positive or is over an hour, or the system has no thread left.
    bool Start(std::chrono::milliseconds period) PROCMGR_EXCLUDES(control_, mutex_);

    // Ends the thread: no beat is sent after the return. The thread never waits for the daemon.
    void Stop() PROCMGR_EXCLUDES(control_, mutex_);

private:
    void Run() PROCMGR_EXCLUDES(mutex_);

    const std::string serviceName_;

    // Held for the whole of Start and of Stop, so that their callers take turns; the thread of the
    // sender, whose end Stop waits for, never takes it. Taken before mutex_.
    Wire::Mutex control_;
    std::thread thread_ PROCMGR_GUARDED_BY(control_);

    Wire::Mutex mutex_;
    Wire::Condition changed_;                                         // period_ has changed
    std::chrono::milliseconds period_ PROCMGR_GUARDED_BY(mutex_){0};  // 0: the thread is to end
};

}  // namespace ProcMgr::Agent
