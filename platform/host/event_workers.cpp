#include "platform/host/event_workers.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <exception>
#include <thread>
#include <utility>

#include "platform/host/diagnostics.h"
#include "wire/blocked_signals.h"
#include "wire/packet.h"

namespace PlatformHost {

namespace {

using Wire::LockGuard;

// Two from the start: the first callback need not wait until a second worker has been made.
constexpr uint32_t FIRST_WORKERS = 2;
constexpr uint32_t MAX_WORKERS = 16;
// Time for which all workers may be held up before one more takes over.
constexpr std::chrono::milliseconds PATIENCE{10};

// True on a worker between BeginBlocking and EndBlocking.
thread_local bool isBlocking = false;

// A token holds the descriptor in its lower half and the number of the watch in its upper half, so
// that a late event is not taken for an event of a new descriptor with the same number.
int DescriptorOf(uint64_t token) {
    return static_cast<int>(token & UINT32_MAX);
}

bool Control(int epoll, int operation, uint64_t token, uint32_t events) {
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = token;
    return epoll_ctl(epoll, operation, DescriptorOf(token), &event) == 0;
}

}  // namespace

EventWorkers& EventWorkers::Shared() {
    static auto* const workers = new EventWorkers;
    return *workers;
}

int32_t EventWorkers::Start() {
    const LockGuard guard(lock_);
    if (!epoll_.IsValid()) {
        epoll_ = Wire::UniqueFd(epoll_create1(EPOLL_CLOEXEC));
        if (!epoll_.IsValid()) {
            return -errno;
        }
    }
    while (total_ < FIRST_WORKERS && SpawnLocked(true)) {
    }
    return total_ > 0 ? 0 : -EAGAIN;
}

bool EventWorkers::SpawnLocked(bool isNeeded) {
    const Wire::BlockedSignals blocked;
    try {
        std::thread([this, isNeeded] { Run(isNeeded); }).detach();
        ++total_;
        ++active_;
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

// While all workers are held up, one idle thread waits for the 10 ms to pass.
void EventWorkers::StandBy(bool isNeeded) {
    Wire::UniqueLock guard(lock_);
    if (isNeeded && active_ - blocked_ <= FIRST_WORKERS) {
        return;
    }
    --active_;
    for (bool isFree = true; isFree;) {
        changed_.Wait(
            guard, [this]() PROCMGR_REQUIRES(lock_) { return !IsAnyFreeLocked() && !isWatched_; });
        isWatched_ = true;
        isFree = changed_.WaitUntil(guard, std::chrono::steady_clock::now() + PATIENCE,
                                    [this]() PROCMGR_REQUIRES(lock_) { return IsAnyFreeLocked(); });
        isWatched_ = false;
    }
    ++active_;
}

void EventWorkers::Run(bool isNeeded) {
    pthread_setname_np(pthread_self(), "muxa");
    // On the stack, where only the pages that packets really fill take memory.
    alignas(std::max_align_t) uint8_t buffer[Wire::PACKET_MAX];
    const int epoll = [this] {
        const LockGuard guard(lock_);  // waits for the end of Start
        return epoll_.Get();
    }();
    for (;; isNeeded = true) {
        StandBy(isNeeded);
        epoll_event event{};
        if (epoll_wait(epoll, &event, 1, -1) != 1) {
            continue;
        }
        const auto handler = Find(event.data.u64);
        try {
            if (handler != nullptr) {
                (*handler)(buffer);
            }
        } catch (const std::exception&) {
            WriteDiagnostic(LOG_ERR, "messaging: out of memory, an event is lost");
        }
    }
}

std::shared_ptr<const EventWorkers::Handler> EventWorkers::Find(uint64_t token) {
    const LockGuard guard(lock_);
    const auto found = handlers_.find(token);
    return found == handlers_.end() ? nullptr : found->second;
}

uint64_t EventWorkers::Watch(int fd, uint32_t events, Handler handler) {
    auto shared = std::make_shared<const Handler>(std::move(handler));
    uint64_t token = 0;
    {
        const LockGuard guard(lock_);
        token = uint64_t{++lastWatch_} << 32 | static_cast<uint32_t>(fd);
        handlers_[token] = std::move(shared);
    }
    if (Control(epoll_.Get(), EPOLL_CTL_ADD, token, events)) {
        return token;
    }
    Forget(token);
    return 0;
}

void EventWorkers::Rearm(uint64_t token, uint32_t events) {
    Control(epoll_.Get(), EPOLL_CTL_MOD, token, events);
}

void EventWorkers::Forget(uint64_t token) {
    // Not left to close(): a child between fork and exec still has the descriptor open.
    Control(epoll_.Get(), EPOLL_CTL_DEL, token, 0);
    decltype(handlers_)::node_type forgotten;  // destroyed after the lock is released
    const LockGuard guard(lock_);
    forgotten = handlers_.extract(token);
}

void EventWorkers::RelieveLocked() {
    if (IsAnyFreeLocked()) {
        return;
    }
    if (active_ < total_) {
        changed_.NotifyAll();
    } else if (total_ - waiting_ < MAX_WORKERS) {
        SpawnLocked(false);
    }
}

void EventWorkers::BeginBlocking() {
    isBlocking = true;
    const LockGuard guard(lock_);
    ++blocked_;
    RelieveLocked();
}

void EventWorkers::EndBlocking() {
    isBlocking = false;
    const LockGuard guard(lock_);
    --blocked_;
    if (isWatched_) {
        changed_.NotifyAll();
    }
}

void EventWorkers::BeginWaiting() {
    if (isBlocking) {
        const LockGuard guard(lock_);
        ++waiting_;
        RelieveLocked();
    }
}

void EventWorkers::EndWaiting() {
    if (isBlocking) {
        const LockGuard guard(lock_);
        --waiting_;
    }
}

}  // namespace PlatformHost
