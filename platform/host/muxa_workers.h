// The threads of the messaging library: one epoll set and a few workers that wait on it. A socket
// is watched for one event at a time and must be armed again, so that one worker handles it.
#pragma once

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

    // Bracket anything that may hold up the calling worker for long: while every worker is held
    // up, one more is started, up to a limit.
    void BeginBlocking();
    void EndBlocking();

    // Bracket, within the above, a wait that only another worker can end. Such workers do not
    // count towards the limit: the one that ends the wait can always be started.
    void BeginWaiting();
    void EndWaiting();

private:
    void Run();
    bool SpawnLocked();
    void RelieveLocked();

    const Handler handler_;
    std::mutex lock_;  // guards the fields below; epoll_ is settled once Start has succeeded
    UniqueFd epoll_;
    uint32_t total_ = 0;
    uint32_t blocked_ = 0;
    uint32_t waiting_ = 0;  // out of blocked_
};

}  // namespace PlatformHost
