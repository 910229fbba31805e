// A counter in shared memory by which a child between fork and execv detects that delayed
// applications have been bound since its fork. DelayCoreAffinity raises the count; the launcher
// reads it before the fork, and the child reads it again after it.
#pragma once

#include <atomic>
#include <cstdint>

namespace ProcMgr {

// The number of times that delayed applications have been listed for a bind, in memory that the
// daemon shares with its children. A child in which the count has grown since the fork pins itself:
// the bind may have pinned it before the child changed its own cores.
class BindCount {
public:
    // The daemon's one instance, created on first use: before the fork of a child that reads it.
    static BindCount& GetInstance();

    // Called after the applications have been listed and before the first is pinned. Any thread.
    void Raise();
    // Takes no lock: callable in a child between fork and execv.
    uint32_t Get() const;

private:
    BindCount();

    // Null when there was no memory for the count; Get() then stays 0.
    std::atomic<uint32_t>* const count_;
};

}  // namespace ProcMgr
