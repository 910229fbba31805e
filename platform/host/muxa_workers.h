// The threads of the messaging library: one epoll set and two workers that wait on it. A socket is
// watched for one event at a time and must be armed again, so that one worker handles it. When the
// workers are held up for a moment, further ones take over; when they are back, these stand by: a
// flood of short requests is never handled by more threads than there are workers.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>

#include "platform/host/unix_socket.h"

namespace PlatformHost {

// All members may be called from any thread. There is no thread and no descriptor before Start.
// Must outlive its threads, which never end.
class MuxaWorkers {
public:
    // Called on a worker for each event, with a buffer for one packet that is the worker's own.
    using Handler = std::function<void(uint64_t token, std::span<uint8_t> buffer)>;

    explicit MuxaWorkers(Handler handler) : handler_(std::move(handler)) {}
    MuxaWorkers(const MuxaWorkers&) = delete;
    MuxaWorkers& operator=(const MuxaWorkers&) = delete;

    // Starts the first workers unless they run. Returns 0 or a negative errno.
    int32_t Start();

    // Watches `fd` for one event out of `events`; Rearm does so again. Returns false when the
    // kernel refuses. An event that was taken before Forget may still be handled after it.
    bool Watch(int fd, uint32_t events, uint64_t token);
    void Rearm(int fd, uint32_t events, uint64_t token);
    void Forget(int fd);

    // Bracket anything that may hold up the calling worker for long: when every worker has been
    // held up for 10 ms, one more takes over, up to a limit.
    void BeginBlocking();
    void EndBlocking();

    // Bracket, within the above, a wait that only another worker can end. Such workers do not
    // count towards the limit: the one that ends the wait can always be started.
    void BeginWaiting();
    void EndWaiting();

private:
    void Run(bool isNeeded);
    bool SpawnLocked(bool isNeeded);
    void RelieveLocked();
    // Returns when this thread is to wait for events.
    void StandBy(bool isNeeded);
    bool IsAnyFreeLocked() const { return blocked_ < active_; }

    const Handler handler_;
    std::mutex lock_;  // guards the fields below; epoll_ is settled once Start has succeeded
    UniqueFd epoll_;
    std::condition_variable changed_;
    uint32_t total_ = 0;      // threads
    uint32_t active_ = 0;     // threads that do not stand by
    uint32_t blocked_ = 0;    // out of active_
    uint32_t waiting_ = 0;    // out of blocked_
    bool isWatched_ = false;  // a thread that stands by is about to take over
};

}  // namespace PlatformHost
