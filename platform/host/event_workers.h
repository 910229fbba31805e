// The threads of the host platform's messaging and heartbeat libraries: one epoll set and two
// workers that wait on it and call a handler for each event. When all workers are held up for 10
// ms, a further thread takes over; it becomes idle when a worker is free again. So a flood of short
// requests is never handled by more threads than there are workers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>

#include "wire/mutex.h"
#include "wire/unique_fd.h"

namespace PlatformHost {

// All members may be called from any thread, and may be called with a lock of the caller held.
class EventWorkers {
public:
    // Called on a worker for an event, with a buffer for one packet (Wire::PACKET_MAX bytes) that
    // belongs to the worker. After an exception the worker goes on with the next event.
    using Handler = std::function<void(std::span<uint8_t> buffer)>;

    // The workers of the process. There is no thread and no descriptor before Start. The object is
    // never destroyed, because its threads never end.
    static EventWorkers& Shared();

    // Starts the first workers unless they run. Returns 0 or a negative errno.
    int32_t Start();

    // Watches `fd` for one event out of `events`; Rearm must be called for each further event, so
    // that one worker at a time handles the descriptor. Returns a token for the calls below, 0 when
    // the kernel refuses.
    uint64_t Watch(int fd, uint32_t events, Handler handler);
    void Rearm(uint64_t token, uint32_t events);
    // Ends the watch; must be called before the descriptor is closed. A worker that took an event
    // before this call may still call the handler afterwards.
    void Forget(uint64_t token);

    // Called around actions that may hold up the calling worker for long: when every worker has
    // been held up for 10 ms, one more takes over, up to a limit.
    void BeginBlocking();
    void EndBlocking();

    // Called around a wait that only another worker can end. Such workers do not count towards the
    // limit, so that the worker that ends the wait can always be started. Without effect on threads
    // that are not between BeginBlocking and EndBlocking.
    void BeginWaiting();
    void EndWaiting();

private:
    void Run(bool isNeeded);
    std::shared_ptr<const Handler> Find(uint64_t token) PROCMGR_EXCLUDES(lock_);
    bool SpawnLocked(bool isNeeded) PROCMGR_REQUIRES(lock_);
    void RelieveLocked() PROCMGR_REQUIRES(lock_);
    // Returns when the calling thread is to wait for events.
    void StandBy(bool isNeeded) PROCMGR_EXCLUDES(lock_);
    bool IsAnyFreeLocked() const PROCMGR_REQUIRES(lock_) { return blocked_ < active_; }

    Wire::UniqueFd epoll_;  // set by the first Start, constant afterwards
    Wire::Mutex lock_;
    Wire::Condition changed_;
    uint32_t total_ PROCMGR_GUARDED_BY(lock_) = 0;    // threads
    uint32_t active_ PROCMGR_GUARDED_BY(lock_) = 0;   // threads that are not idle
    uint32_t blocked_ PROCMGR_GUARDED_BY(lock_) = 0;  // out of active_
    uint32_t waiting_ PROCMGR_GUARDED_BY(lock_) = 0;  // out of blocked_
    // An idle thread waits for the 10 ms to pass.
    bool isWatched_ PROCMGR_GUARDED_BY(lock_) = false;
    uint32_t lastWatch_ PROCMGR_GUARDED_BY(lock_) = 0;
    std::map<uint64_t, std::shared_ptr<const Handler>> handlers_ PROCMGR_GUARDED_BY(lock_);
};

}  // namespace PlatformHost
