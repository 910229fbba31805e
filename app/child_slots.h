// Creates children that share the memory of the daemon until they execute their program. Nothing is
// copied for such a child, which makes up most of the cost of a fork, and the parent does not wait
// for it: several children may be between their creation and execve at the same time.
//
// A child needs a slot for that time: a stack, and thread-local storage (errno) that no running
// thread uses; it is lent by a thread of the slot that sleeps. The kernel clears the slot's word
// and wakes its waiters when the child has executed its program or has ended, even by SIGKILL, and
// no longer uses the memory. There are four slots for each core, at most eight, or one on a machine
// with one core. A caller that gets no slot forks.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "main/common/mutex.h"
#include "main/common/recent.h"
#include "wire/unique_fd.h"

namespace ProcMgr::App {

// Callable from any thread.
class ChildSlots {
public:
    // The code of a child; it does not return. `hasHandlers`: the child has the signal handlers of
    // the daemon, because the kernel (before 5.5) cannot drop them; otherwise it has the default
    // actions in their place.
    using Run = void (*)(void* argument, bool hasHandlers);

    // The right to create one child, or none. Must not outlive its ChildSlots.
    class Lease {
    public:
        Lease() = default;
        ~Lease() { Release(); }
        Lease(Lease&& other) noexcept;
        Lease& operator=(Lease&& other) noexcept;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        bool IsValid() const { return slots_ != nullptr; }

        // Creates a child that calls `run` with `argument` and all signals blocked. `used` is what
        // the child uses: it is kept until the child no longer shares the memory. Uses up the
        // lease. Returns the pid, or below 0, with errno, when the kernel refuses the child. The
        // caller has blocked all signals and may hold any lock.
        pid_t Create(Run run, void* argument, std::shared_ptr<const void> used);

    private:
        friend class ChildSlots;
        Lease(ChildSlots& slots, size_t index) : slots_(&slots), index_(index) {}
        void Release();

        ChildSlots* slots_ = nullptr;
        size_t index_ = 0;
    };

    // `count`: the highest number of slots; 0: every lease is empty.
    explicit ChildSlots(size_t count = DefaultCount());
    ~ChildSlots();
    ChildSlots(const ChildSlots&) = delete;
    ChildSlots& operator=(const ChildSlots&) = delete;

    // Waits for a slot, for a short time at most: a child that cannot go on, for example because
    // its medium is slow or somebody has stopped it, keeps its slot. `changesUser`: the child will
    // change its user or group. Returns an empty lease when there is no slot, no memory for one, or
    // no protection of the memory from the new user. Not with a lock held.
    Lease Take(bool changesUser) PROCMGR_EXCLUDES(mutex_);

    // Makes all slots. Otherwise the first leases make them, which takes about 80 us each.
    void Fill() PROCMGR_EXCLUDES(mutex_);

    // The number for this machine; 0 where children must not share the memory: under sanitizers,
    // whose run-time libraries they would change, and for a daemon that is not root.
    static size_t DefaultCount();

private:
    struct Slot;

    // Whether the kernel protects the memory from the new user of a child: with the setting
    // fs.suid_dumpable at 0 a change of the user leaves the memory not dumpable, so that no process
    // of that user can trace the child.
    bool IsMemoryProtected() PROCMGR_EXCLUDES(mutex_);
    pid_t Clone(Slot& slot);
    // A free slot, made now if there are fewer than count_; an empty lease when all are in use.
    Lease TakeFree() PROCMGR_EXCLUDES(mutex_);
    // The caller has counted the new slot in making_.
    Lease MakeSlot() PROCMGR_EXCLUDES(mutex_);
    // Waits for a moment for the child that has had its slot longest, of those that are still
    // waited for. False when there is none.
    bool WaitForChild() PROCMGR_EXCLUDES(mutex_);

    const size_t count_;
    const Wire::UniqueFd suidDumpable_;  // the file of that setting
    Recent<bool> isProtected_;
    std::atomic<bool> canDropHandlers_{true};
    Mutex mutex_;
    size_t making_ PROCMGR_GUARDED_BY(mutex_) = 0;  // slots that are being made
    // Slots are added, never removed. The vector is reserved for all of them.
    std::vector<std::unique_ptr<Slot>> slots_ PROCMGR_GUARDED_BY(mutex_);
};

}  // namespace ProcMgr::App
