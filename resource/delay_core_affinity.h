// Delayed core affinity: an application that is marked for it is not pinned at its launch but when
// an owner asks for the bind; a worker thread then pins the threads that the application creates
// afterwards. Also the recovery of all pinnings after a suspend. Owners' requests come on messaging
// threads; the recovery runs on the check thread or on the thread of the platform's power call.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "main/common/mutex.h"
#include "message/delay_core_affinity.h"
#include "resource/bind_count.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/managed_apps.h"

namespace ProcMgr {

// Callable from any thread that holds no lock.
class DelayCoreAffinity {
public:
    // All four must outlive this object.
    DelayCoreAffinity(CgroupMgr& cgroups, CoreAffinityMgr& affinity, BindCount& bindCount,
                      ManagedApps& apps)
        : cgroups_(cgroups), affinity_(affinity), bindCount_(bindCount), apps_(apps) {}
    ~DelayCoreAffinity() { Stop(); }
    DelayCoreAffinity(const DelayCoreAffinity&) = delete;
    DelayCoreAffinity& operator=(const DelayCoreAffinity&) = delete;

    // Binds the delayed applications and starts the re-checks, or resets the state so that a new
    // bind is accepted; see DelayCoreAffinityReq. A bind after a bind without a reset is ignored.
    // Returns DELAY_OK, DELAY_BUSY or DELAY_FAILED.
    uint32_t SetDelayCoreAffinity(const Message::DelayCoreAffinityReq& request)
        PROCMGR_EXCLUDES(passMutex_, mutex_);

    // Before a suspend: ends the re-checks.
    void Suspend() PROCMGR_EXCLUDES(mutex_);
    // After a resume: sets the host's CPU limits and pins the daemon and all managed processes
    // again. When the last bind request asked for it, delayed applications go back to the cores of
    // their cpuset, and a new bind is accepted.
    void WakeUpRecover() PROCMGR_EXCLUDES(passMutex_, mutex_);

    // Ends the worker and waits for it; it is not started again.
    void Stop() PROCMGR_EXCLUDES(passMutex_, mutex_);

private:
    // IDLE: a bind is accepted. BOUND: applications are being bound or re-checked. FINISHED: the
    // re-checks are over.
    enum DelayState { IDLE = 0, BOUND = 1, FINISHED = 2 };

    // Allows a new bind; DELAY_BUSY while the last one is re-checked.
    uint32_t Reset() PROCMGR_EXCLUDES(mutex_);
    uint32_t Bind(const Message::DelayCoreAffinityReq& request)
        PROCMGR_EXCLUDES(passMutex_, mutex_);
    // Takes the state from IDLE to BOUND, and returns the number of the new bind; nothing when the
    // state is not IDLE.
    std::optional<uint64_t> Accept() PROCMGR_EXCLUDES(mutex_);
    // Stores the request, with defaults for values that are out of range, and wakes the worker,
    // which the first request starts. Does nothing when `bind` is not the newest bind. Throws
    // std::system_error when the worker cannot be started.
    void StoreRequest(const Message::DelayCoreAffinityReq& request, uint64_t bind)
        PROCMGR_EXCLUDES(mutex_);

    // One pass over the delayed applications each. Both end early when `bind` is no longer current.
    uint32_t BindAll(uint64_t bind) PROCMGR_EXCLUDES(passMutex_, mutex_);
    bool CheckAll(uint64_t bind) PROCMGR_EXCLUDES(passMutex_, mutex_);
    std::vector<ManagedApp> ListDelayed();
    // Pins the process and all its threads. Returns the code of the first failure; AFFINITY_OK also
    // when the process has ended.
    uint32_t BindCoreForDelayApp(const ManagedApp& app) PROCMGR_REQUIRES(passMutex_);
    // Pins the threads that run on other cores than the application's; logs each that cannot be
    // pinned. True when no such thread is left, or the process has ended.
    bool CheckMissingTids(const ManagedApp& app) PROCMGR_REQUIRES(passMutex_);
    // Stores and sets one pinning. AFFINITY_OK also when the thread has ended; on failure the
    // reason is appended to `error`.
    uint32_t Pin(const ManagedApp& app, int32_t tid, std::string& error)
        PROCMGR_REQUIRES(passMutex_);

    // The body of the worker.
    void CheckCoreAffinityThread() PROCMGR_EXCLUDES(passMutex_, mutex_);
    // Makes the re-checks of one bind.
    void Recheck(const Message::DelayCoreAffinityReq& request, uint64_t bind)
        PROCMGR_EXCLUDES(passMutex_, mutex_);
    // Whether the bind is the newest one and has been neither finished nor undone.
    bool IsCurrent(uint64_t bind) PROCMGR_EXCLUDES(mutex_);
    // Waits for the interval; returns earlier when the re-checks of the bind have to end.
    void WaitFor(std::chrono::milliseconds interval, uint64_t bind) PROCMGR_EXCLUDES(mutex_);
    void Finish(uint64_t bind) PROCMGR_EXCLUDES(mutex_);

    // Resets the state of the current bind, and isSuspended_. Returns whether delayed applications
    // go back to their cpuset.
    bool EndBind() PROCMGR_EXCLUDES(mutex_);
    void PinDaemon();
    // Puts the delayed applications back to their cpuset when `isReset` is set. Returns the
    // processes whose pinnings are to be restored.
    std::vector<int32_t> PrepareRecovery(bool isReset) PROCMGR_REQUIRES(passMutex_);
    uint32_t ResetToCpuset(const ManagedApp& app) PROCMGR_REQUIRES(passMutex_);

    CgroupMgr& cgroups_;
    CoreAffinityMgr& affinity_;
    BindCount& bindCount_;
    ManagedApps& apps_;
    // Held while one application is bound or checked, and during the whole recovery, so that no
    // pass of an earlier bind pins what the recovery has put back. Taken before mutex_ and the
    // locks of the containers.
    Mutex passMutex_;
    Mutex mutex_;
    Condition changed_;  // signalled when a field below has changed
    Message::DelayCoreAffinityReq request_ PROCMGR_GUARDED_BY(mutex_);  // the last one accepted
    bool isPending_ PROCMGR_GUARDED_BY(mutex_) = false;  // the worker has not taken request_ yet
    bool isStopped_ PROCMGR_GUARDED_BY(mutex_) = false;
    std::thread worker_ PROCMGR_GUARDED_BY(mutex_);
    uint64_t binds_ PROCMGR_GUARDED_BY(mutex_) = 0;  // number of the newest bind
    // Changed while mutex_ is held, so that no waiting thread misses a change; read without it.
    std::atomic<DelayState> delayState_{IDLE};
    std::atomic<bool> isSuspended_{false};
};

}  // namespace ProcMgr
