// Sends a service's heartbeats to the daemon from a thread of its own, so that a busy service is
// still seen to live. Used by OwnerChannel.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace ProcMgr::Agent {

// Thread-safe. The daemon takes a beat only from the process that it has started under the name.
class HeartbeatSender {
public:
    explicit HeartbeatSender(std::string serviceName);
    ~HeartbeatSender();
    HeartbeatSender(const HeartbeatSender&) = delete;
    HeartbeatSender& operator=(const HeartbeatSender&) = delete;

    // Sends a beat now and one each `period` from then on; when beats are being sent already, only
    // their period changes. A daemon that is absent or busy misses beats, nothing else happens.
    // False when the period is not positive or over an hour, or there is no thread to be had.
    bool Start(std::chrono::milliseconds period);

    // No beat is sent once this returns. Returns at once.
    void Stop();

private:
    void Run();

    const std::string serviceName_;
    std::mutex control_;  // held by Start and Stop as a whole, taken before mutex_
    std::thread thread_;  // guarded by control_

    std::mutex mutex_;
    std::condition_variable changed_;
    std::chrono::milliseconds period_{0};  // guarded by mutex_; 0: not to run
};

}  // namespace ProcMgr::Agent
