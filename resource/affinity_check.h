// Where the daemon's own threads and those of the priority applications belong, and the periodic
// check that puts new ones there. CheckThread runs the check; the main thread starts it.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>

#include "resource/managed_apps.h"

namespace ProcMgr {

class AffinityCheck {
public:
    // `apps` must outlive this object.
    explicit AffinityCheck(ManagedApps& apps) : apps_(apps) {}

    // Puts the daemon in its place; from now on the check has something to do. Once the core lists
    // and the host resource file have been read.
    void Start();

    // One check. False, with nothing done, before Start.
    bool Run();

private:
    void PlaceOwnThreads();
    static void AddOwnTids(const std::set<int32_t>& tids);
    // Whether the process cannot have new threads, as far as their number tells.
    static bool IsSettled(const ManagedApp& app);
    void PlacePriorityApp(const ManagedApp& app);
    static void PlacePriorityThread(const ManagedApp& app, int32_t tid);

    ManagedApps& apps_;
    std::atomic<bool> isStarted_{false};
    uint32_t checks_ = 0;        // CheckThread's
    std::set<int32_t> ownTids_;  // placed before; the main thread's until isStarted_
};

}  // namespace ProcMgr
