// Delayed core affinity: applications that are marked for it are not pinned at their launch but
// when an owner asks, and a worker then looks for threads that were made meanwhile. Also what is
// due to all pinnings when the system wakes up. Requests come on messaging threads, the recovery on
// CheckThread; the worker is started with the first bind.
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

class DelayCoreAffinity {
public:
    // All four must outlive this object.
    DelayCoreAffinity(CgroupMgr& cgroups, CoreAffinityMgr& affinity, BindCount& bindCount,
                      ManagedApps& apps)
        : cgroups_(cgroups), affinity_(affinity), bindCount_(bindCount), apps_(apps) {}
    ~DelayCoreAffinity() { Stop(); }
    DelayCoreAffinity(const DelayCoreAffinity&) = delete;
    DelayCoreAffinity& operator=(const DelayCoreAffinity&) = delete;

    // Binds the applications now, or allows a new bind; see DelayCoreAffinityReq. A bind that is
    // asked for when there was one is ignored. Returns DELAY_OK, DELAY_BUSY or DELAY_FAILED.
    uint32_t SetDelayCoreAffinity(const Message::DelayCoreAffinityReq& request);

    // Pins the process and all its threads. The first failure's code; 0 also when the process is
    // not there any more.
    uint32_t BindCoreForDelayApp(const ManagedApp& app);

    // For the worker. Pins the threads that are not pinned yet, with a log line for each that
    // cannot be. True when all threads that it found are pinned now.
    bool CheckMissingTids(const ManagedApp& app);

    // Before the system is suspended: ends the re-checks.
    void Suspend();
    // After it has woken up: restores CPU limits and pinnings.
    void WakeUpRecover();

    // Ends the worker; no other is started.
    void Stop();

private:
    enum DelayState { IDLE = 0, BOUND = 1, FINISHED = 2 };

    uint32_t Bind(const Message::DelayCoreAffinityReq& request);
    // The passes over the applications. Both end when the bind is not the current one any more.
    uint32_t BindAll(uint64_t bind);
    bool CheckAll(uint64_t bind);
    std::vector<ManagedApp> ListDelayed();
    // Keeps the request, with valid values, and wakes the worker, which it makes if need be. Throws
    // when there is no thread to be had.
    void StoreRequest(const Message::DelayCoreAffinityReq& request, uint64_t bind);
    // Takes the state from IDLE to BOUND, and returns the number of the bind; nothing when it is
    // not IDLE.
    std::optional<uint64_t> Accept();
    void Finish(uint64_t bind);

    void CheckCoreAffinityThread();
    // The re-checks of one bind.
    void Recheck(const Message::DelayCoreAffinityReq& request, uint64_t bind);
    bool IsCurrent(uint64_t bind);
    void WaitFor(std::chrono::milliseconds interval, uint64_t bind);

    bool ReadWakeUpEnable();
    uint32_t ResetToCpuset(const ManagedApp& app);
    // Sets and remembers one pinning; what fails is appended to `error`.
    uint32_t Pin(const ManagedApp& app, int32_t tid, std::string& error);

    CgroupMgr& cgroups_;
    CoreAffinityMgr& affinity_;
    BindCount& bindCount_;
    ManagedApps& apps_;
    // Held while one application is bound or checked, and during a recovery: what that puts back
    // stays. Taken before mutex_ and the containers' locks.
    Mutex passMutex_;
    Mutex mutex_;
    Condition changed_;                      // of anything below
    Message::DelayCoreAffinityReq request_;  // the last one accepted; guarded by mutex_
    bool isPending_ = false;                 // the worker has not seen it yet; guarded by mutex_
    bool isStopped_ = false;                 // guarded by mutex_
    std::thread worker_;                     // started under mutex_
    // Written under mutex_ only.
    std::atomic<int> delayState_{IDLE};
    std::atomic<bool> isSuspended_{false};
    uint64_t binds_ = 0;  // accepted so far; guarded by mutex_
};

}  // namespace ProcMgr
