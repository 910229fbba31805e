#include "app/child_slots.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "app/shared_clone.h"
#include "main/common/clock.h"
#include "main/common/threads.h"

namespace ProcMgr::App {
namespace {

// With two for each core a start of 1000 services took 3 % longer; more than four gain little and
// take memory. On one core children are made one at a time.
constexpr size_t SLOTS_PER_CORE = 4;
constexpr size_t SLOTS_MAX = 8;
// How long a child may keep its slot before others no longer wait for it. A child needs about a
// third of a millisecond to execute its program.
constexpr std::chrono::milliseconds PATIENCE{5};
// The longest single wait for a child: another one may be ready sooner.
constexpr std::chrono::microseconds WAIT_SLICE{500};
// The access registration of the platform runs on this stack, too. Pages that are never touched
// cost no memory.
constexpr size_t STACK_SIZE = size_t{256} << 10;
constexpr size_t GUARD_SIZE = size_t{64} << 10;  // a multiple of every page size

constexpr const char* SUID_DUMPABLE_FILE = "/proc/sys/fs/suid_dumpable";

// A thread that sleeps from the constructor to the destructor and lends its thread-local storage.
class StorageThread {
public:
    StorageThread() : thread_(StartThread("child storage", [this] { Run(); })) {
        UniqueLock lock(mutex_);
        changed_.Wait(lock,
                      [this]() PROCMGR_REQUIRES(mutex_) { return threadPointer_ != nullptr; });
    }
    ~StorageThread() {
        {
            const LockGuard lock(mutex_);
            isEnding_ = true;
        }
        changed_.NotifyAll();
        thread_.join();
    }
    StorageThread(const StorageThread&) = delete;
    StorageThread& operator=(const StorageThread&) = delete;

    void* GetThreadPointer() {
        const LockGuard lock(mutex_);
        return threadPointer_;
    }

private:
    void Run() {
        UniqueLock lock(mutex_);
        threadPointer_ = App::GetThreadPointer();
        changed_.NotifyAll();
        changed_.Wait(lock, [this]() PROCMGR_REQUIRES(mutex_) { return isEnding_; });
    }

    Mutex mutex_;
    Condition changed_;
    void* threadPointer_ PROCMGR_GUARDED_BY(mutex_) = nullptr;
    bool isEnding_ PROCMGR_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

// A stack with a guard below it. Its memory is not touched before a child runs on it.
class Stack {
public:
    Stack()
        : memory_(mmap(nullptr, GUARD_SIZE + STACK_SIZE, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0)) {
        if (memory_ == MAP_FAILED || mprotect(memory_, GUARD_SIZE, PROT_NONE) != 0) {
            Unmap();
            throw std::bad_alloc();
        }
    }
    ~Stack() { Unmap(); }
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;

    // The lowest address.
    void* Get() const { return static_cast<char*>(memory_) + GUARD_SIZE; }

private:
    void Unmap() {
        if (memory_ != MAP_FAILED) {
            munmap(memory_, GUARD_SIZE + STACK_SIZE);
        }
    }

    void* const memory_;
};

}  // namespace

struct ChildSlots::Slot {
    // The pid of the child while it shares the memory, else 0. The kernel writes it.
    pid_t child = 0;
    // The rest is used under the mutex of ChildSlots, or by the holder of the lease.
    bool isLeased = false;
    SteadyTime leased{};
    Run run = nullptr;
    void* argument = nullptr;
    bool hasHandlers = false;
    std::shared_ptr<const void> used;
    Stack stack;
    StorageThread storage;

    pid_t GetChild() { return std::atomic_ref(child).load(std::memory_order_acquire); }
};

ChildSlots::Lease::Lease(Lease&& other) noexcept
    : slots_(std::exchange(other.slots_, nullptr)), index_(other.index_) {}

ChildSlots::Lease& ChildSlots::Lease::operator=(Lease&& other) noexcept {
    if (this != &other) {
        Release();
        slots_ = std::exchange(other.slots_, nullptr);
        index_ = other.index_;
    }
    return *this;
}

void ChildSlots::Lease::Release() {
    ChildSlots* const slots = std::exchange(slots_, nullptr);
    if (slots != nullptr) {
        const LockGuard lock(slots->mutex_);
        slots->slots_[index_]->isLeased = false;
    }
}

pid_t ChildSlots::Lease::Create(Run run, void* argument, std::shared_ptr<const void> used) {
    Slot* slot = nullptr;
    {
        const LockGuard lock(slots_->mutex_);
        slot = slots_->slots_[index_].get();
    }
    slot->run = run;
    slot->argument = argument;
    slot->used = std::move(used);
    const pid_t child = slots_->Clone(*slot);
    const int error = errno;
    Release();
    errno = error;
    return child;
}

pid_t ChildSlots::Clone(Slot& slot) {
    SharedChild child;
    child.stack = slot.stack.Get();
    child.stackSize = STACK_SIZE;
    child.threadPointer = slot.storage.GetThreadPointer();
    child.word = &slot.child;
    child.argument = &slot;
    child.run = [](void* argument) {
        const Slot& own = *static_cast<Slot*>(argument);
        own.run(own.argument, own.hasHandlers);
        return EXIT_FAILURE;
    };
    slot.hasHandlers = !canDropHandlers_;
    if (slot.hasHandlers) {
        return CloneWithHandlers(child);
    }
    const pid_t pid = CloneWithoutHandlers(child);
    if (pid >= 0 || errno == EAGAIN || errno == ENOMEM) {
        return pid;
    }
    canDropHandlers_ = false;
    slot.hasHandlers = true;
    return CloneWithHandlers(child);
}

// On older kernels a core dump ends every process that has the memory, and a core would show the
// memory of the daemon under the name of a service: with slots the memory is not dumpable.
ChildSlots::ChildSlots(size_t count)
    : count_(count), suidDumpable_(open(SUID_DUMPABLE_FILE, O_RDONLY | O_CLOEXEC)) {
    slots_.reserve(count);
    if (count > 0) {
        prctl(PR_SET_DUMPABLE, 0);
    }
}

// A slot whose child has not executed its program yet is not freed: the child still uses it.
ChildSlots::~ChildSlots() {
    for (std::unique_ptr<Slot>& slot : slots_) {
        if (slot->GetChild() != 0) {
            [[maybe_unused]] const Slot* inUse = slot.release();
        }
    }
}

size_t ChildSlots::DefaultCount() {
    if (!MAY_SHARE_MEMORY || geteuid() != 0) {
        return 0;
    }
    const size_t cores = std::thread::hardware_concurrency();
    return cores > 1 ? std::min(SLOTS_PER_CORE * cores, SLOTS_MAX) : 1;
}

// The setting may change while the daemon runs.
bool ChildSlots::IsMemoryProtected() {
    return isProtected_.Get([this] {
        char value = 0;
        return pread(suidDumpable_.Get(), &value, sizeof(value), 0) == 1 && value == '0';
    });
}

ChildSlots::Lease ChildSlots::Take(bool changesUser) {
    if (count_ == 0 || (changesUser && !IsMemoryProtected())) {
        return {};
    }
    for (;;) {
        Lease lease = TakeFree();
        if (lease.IsValid() || !WaitForChild()) {
            return lease;
        }
    }
}

ChildSlots::Lease ChildSlots::TakeFree() {
    {
        const LockGuard lock(mutex_);
        for (size_t i = 0; i < slots_.size(); ++i) {
            Slot& slot = *slots_[i];
            if (!slot.isLeased && slot.GetChild() == 0) {
                slot.isLeased = true;
                slot.leased = std::chrono::steady_clock::now();
                return {*this, i};
            }
        }
        if (slots_.size() + making_ == count_) {
            return {};
        }
        ++making_;
    }
    return MakeSlot();
}

void ChildSlots::Fill() {
    bool isMade = true;
    while (isMade) {
        {
            const LockGuard lock(mutex_);
            if (slots_.size() + making_ == count_) {
                return;
            }
            ++making_;
        }
        isMade = MakeSlot().IsValid();
    }
}

// Without the lock, because the thread of the slot is waited for.
ChildSlots::Lease ChildSlots::MakeSlot() {
    std::unique_ptr<Slot> made;
    try {
        made = std::make_unique<Slot>();
        made->isLeased = true;
        made->leased = std::chrono::steady_clock::now();
    } catch (const std::exception&) {
        made = nullptr;
    }
    const LockGuard lock(mutex_);
    --making_;
    if (made == nullptr) {
        return {};
    }
    slots_.push_back(std::move(made));  // the vector has room
    return {*this, slots_.size() - 1};
}

// The kernel wakes a waiter of the word of a slot when it clears the word. Another slot may become
// free meanwhile, and the kernel wakes only one waiter, so a wait is short.
bool ChildSlots::WaitForChild() {
    MayWait("a child that has not executed its program yet");
    Slot* awaited = nullptr;
    bool isAnyAwaited = false;
    {
        const LockGuard lock(mutex_);
        const SteadyTime now = std::chrono::steady_clock::now();
        for (const std::unique_ptr<Slot>& slot : slots_) {
            if (!slot->isLeased && slot->GetChild() == 0) {
                return true;  // it has become free
            }
            if (now - slot->leased >= PATIENCE) {
                continue;
            }
            isAnyAwaited = true;
            if (slot->GetChild() != 0 && (awaited == nullptr || slot->leased < awaited->leased)) {
                awaited = slot.get();
            }
        }
    }
    const pid_t child = awaited == nullptr ? 0 : awaited->GetChild();
    if (child == 0) {
        // The holders of the leases have not created their children yet, or a slot is free by now.
        if (isAnyAwaited && awaited == nullptr) {
            SleepFor(WAIT_SLICE);
        }
        return isAnyAwaited;
    }
    const timespec slice{0, std::chrono::nanoseconds(WAIT_SLICE).count()};
    syscall(SYS_futex, &awaited->child, FUTEX_WAIT, child, &slice, nullptr, 0);
    return true;
}

}  // namespace ProcMgr::App
