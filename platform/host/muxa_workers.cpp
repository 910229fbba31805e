#include "platform/host/muxa_workers.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <thread>

#include "platform/host/diagnostics.h"
#include "platform/host/muxa_socket.h"
#include "wire/blocked_signals.h"

namespace PlatformHost {

namespace {

// Two from the start: the first callback need not wait until a second worker has been made.
constexpr uint32_t FIRST_WORKERS = 2;
constexpr uint32_t MAX_WORKERS = 16;
// So long all workers may be held up before one more takes over.
constexpr std::chrono::milliseconds PATIENCE{10};

}  // namespace

int32_t MuxaWorkers::Start() {
    const std::lock_guard guard(lock_);
    if (!epoll_.IsValid()) {
        epoll_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
        if (!epoll_.IsValid()) {
            return -errno;
        }
    }
    while (total_ < FIRST_WORKERS && SpawnLocked(true)) {
    }
    return total_ > 0 ? 0 : -EAGAIN;
}

bool MuxaWorkers::SpawnLocked(bool isNeeded) {
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

// A thread that stands by watches the others from the moment when all of them are held up.
void MuxaWorkers::StandBy(bool isNeeded) {
    std::unique_lock guard(lock_);
    if (isNeeded && active_ - blocked_ <= FIRST_WORKERS) {
        return;
    }
    --active_;
    for (bool isFree = true; isFree;) {
        changed_.wait(guard, [this] { return !IsAnyFreeLocked() && !isWatched_; });
        isWatched_ = true;
        isFree = changed_.wait_for(guard, PATIENCE, [this] { return IsAnyFreeLocked(); });
        isWatched_ = false;
    }
    ++active_;
}

void MuxaWorkers::Run(bool isNeeded) {
    pthread_setname_np(pthread_self(), "muxa");
    // On the stack, where only the pages that packets really fill cost memory.
    alignas(std::max_align_t) uint8_t buffer[MUXA_MAX_PACKET];
    const int epoll = [this] {
        const std::lock_guard guard(lock_);
        return epoll_.Get();
    }();
    for (;; isNeeded = true) {
        StandBy(isNeeded);
        epoll_event event{};
        if (epoll_wait(epoll, &event, 1, -1) != 1) {
            continue;
        }
        try {
            handler_(event.data.u64, buffer);
        } catch (const std::exception&) {
            // The other lines go on.
            ProcMgr::WriteDiagnostic(LOG_ERR, "messaging: out of memory, an event is lost");
        }
    }
}

bool MuxaWorkers::Watch(int fd, uint32_t events, uint64_t token) {
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = token;
    return epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void MuxaWorkers::Rearm(int fd, uint32_t events, uint64_t token) {
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = token;
    epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, fd, &event);
}

void MuxaWorkers::Forget(int fd) {
    // Not left to close(): a child between fork and exec still has the socket open.
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

void MuxaWorkers::RelieveLocked() {
    if (IsAnyFreeLocked()) {
        return;
    }
    if (active_ < total_) {
        changed_.notify_all();
    } else if (total_ - waiting_ < MAX_WORKERS) {
        SpawnLocked(false);
    }
}

void MuxaWorkers::BeginBlocking() {
    const std::lock_guard guard(lock_);
    ++blocked_;
    RelieveLocked();
}

void MuxaWorkers::EndBlocking() {
    const std::lock_guard guard(lock_);
    --blocked_;
    if (isWatched_) {
        changed_.notify_all();
    }
}

void MuxaWorkers::BeginWaiting() {
    const std::lock_guard guard(lock_);
    ++waiting_;
    RelieveLocked();
}

void MuxaWorkers::EndWaiting() {
    const std::lock_guard guard(lock_);
    --waiting_;
}

}  // namespace PlatformHost
