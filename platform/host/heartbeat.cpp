// The functions of platform/heartbeat.h: the watched names, the receiving of beats and the search
// for overdue ones, all in rounds on the workers.
#include "platform/heartbeat.h"

#include <sys/epoll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/event_workers.h"
#include "platform/host/heartbeat_peers.h"
#include "wire/mutex.h"

namespace {

using PlatformHost::EventWorkers;
using Wire::LockGuard;
using Clock = std::chrono::steady_clock;

// Pause before each round: it limits the processor time that a flood of packets can take.
constexpr std::chrono::milliseconds ROUND_PAUSE{10};
constexpr std::chrono::milliseconds CHECK_PERIOD{500};
constexpr std::chrono::milliseconds LOST_AFTER{3000};
constexpr size_t MAX_NAME = 127;

enum Status : uint32_t { BACK = 0, LOST = 1 };

// True on a thread that runs a callback.
thread_local bool isInCallback = false;

// The watched names and their socket, from the first registration until all watches are ended.
// Thread-safe.
class Monitor : public std::enable_shared_from_this<Monitor> {
public:
    // Returns 0 or a negative errno.
    int Start();
    // Returns 0, or -125 (ECANCELED) when the monitor has been stopped.
    int Watch(std::string_view name, pid_t pid, HeartBeatCallback callback);
    int Unwatch(std::string_view name);
    // No callback starts any more. The socket is closed now or at the end of a running round.
    void Stop();
    // Waits, after Stop, for the end of a running round.
    void WaitForRound();

private:
    struct Watched {
        pid_t pid = 0;
        HeartBeatCallback callback;
        bool isArmed = false;  // has sent a beat
        bool isLost = false;
        Clock::time_point lastBeat;
    };

    // The arguments of one callback, copied under the lock: the callback itself runs without the
    // lock, so that it may register and unregister.
    struct Notice {
        std::string name;
        pid_t pid = 0;
        HeartBeatCallback callback;
        Status status = LOST;
    };

    void OnReady();
    bool BeginRound() PROCMGR_EXCLUDES(lock_);
    void EndRound() PROCMGR_EXCLUDES(lock_);
    void CloseLocked() PROCMGR_REQUIRES(lock_);
    std::set<pid_t> Registered() PROCMGR_EXCLUDES(lock_);
    bool TakeBeat(pid_t pid, const std::string& name) PROCMGR_EXCLUDES(lock_);
    void Check();
    std::optional<Notice> NextLoss(Clock::time_point now) PROCMGR_EXCLUDES(lock_);
    static void Notify(const Notice& notice);

    // Used by the running round only, but for SetTimer under the lock.
    PlatformHost::HeartbeatPeers peers_;
    // Used by the running round only; max() while neither a beat nor a registration can be overdue.
    Clock::time_point nextCheck_ = Clock::time_point::max();

    Wire::Mutex lock_;
    Wire::Condition roundEnded_;
    uint64_t watch_ PROCMGR_GUARDED_BY(lock_) = 0;
    bool isStopped_ PROCMGR_GUARDED_BY(lock_) = false;
    bool isInRound_ PROCMGR_GUARDED_BY(lock_) = false;
    // A name has been registered since the begin of the round.
    bool isChanged_ PROCMGR_GUARDED_BY(lock_) = false;
    std::map<std::string, Watched, std::less<>> watched_ PROCMGR_GUARDED_BY(lock_);
};

int Monitor::Start() {
    int32_t result = EventWorkers::Shared().Start();
    result = result == 0 ? peers_.Open() : result;
    if (result < 0) {
        return result;
    }
    const LockGuard guard(lock_);
    watch_ = EventWorkers::Shared().Watch(peers_.Fd(), EPOLLIN,
                                          [self = shared_from_this()](auto) { self->OnReady(); });
    return watch_ != 0 ? 0 : -ENOMEM;
}

int Monitor::Watch(std::string_view name, pid_t pid, HeartBeatCallback callback) {
    const LockGuard guard(lock_);
    if (isStopped_) {
        return -ECANCELED;
    }
    Watched watched;
    watched.pid = pid;
    watched.callback = std::move(callback);
    watched_.insert_or_assign(std::string(name), std::move(watched));
    // A round now: the process may be connected already.
    isChanged_ = true;
    peers_.SetTimer(Clock::now());
    return 0;
}

int Monitor::Unwatch(std::string_view name) {
    const LockGuard guard(lock_);
    const auto found = watched_.find(name);
    if (found == watched_.end()) {
        return -ENOENT;
    }
    watched_.erase(found);
    return 0;
}

void Monitor::Stop() {
    const LockGuard guard(lock_);
    if (std::exchange(isStopped_, true)) {
        return;
    }
    watched_.clear();
    if (!isInRound_) {
        CloseLocked();
    }
}

void Monitor::CloseLocked() {
    EventWorkers::Shared().Forget(watch_);
    peers_.Close();
}

void Monitor::WaitForRound() {
    Wire::UniqueLock guard(lock_);
    roundEnded_.Wait(guard, [this]() PROCMGR_REQUIRES(lock_) { return !isInRound_; });
}

void Monitor::OnReady() {
    if (!BeginRound()) {
        return;
    }
    const EventWorkers::BlockingScope blocking(EventWorkers::Shared());
    std::this_thread::sleep_for(ROUND_PAUSE);
    try {
        // Beats before the check: beats that came during a long callback are not overdue.
        peers_.Round(Registered(),
                     [this](pid_t pid, const std::string& name) { return TakeBeat(pid, name); });
        Check();
    } catch (const std::exception&) {
        PlatformHost::WriteDiagnostic(LOG_ERR, "heartbeat: out of memory, a round has failed");
    }
    EndRound();
}

bool Monitor::BeginRound() {
    const LockGuard guard(lock_);
    isChanged_ = false;
    isInRound_ = !isStopped_;
    return isInRound_;
}

void Monitor::EndRound() {
    const LockGuard guard(lock_);
    isInRound_ = false;
    if (isStopped_) {
        CloseLocked();
        roundEnded_.NotifyAll();
        return;
    }
    const bool canBeOverdue =
        !peers_.IsEmpty() || std::any_of(watched_.begin(), watched_.end(), [](const auto& entry) {
            return entry.second.isArmed && !entry.second.isLost;
        });
    const auto now = Clock::now();
    if (!canBeOverdue) {
        nextCheck_ = Clock::time_point::max();
    } else if (nextCheck_ == Clock::time_point::max()) {
        nextCheck_ = now + CHECK_PERIOD;
    }
    peers_.SetTimer(isChanged_ ? now : nextCheck_);
    EventWorkers::Shared().Rearm(watch_, EPOLLIN);
}

std::set<pid_t> Monitor::Registered() {
    std::set<pid_t> pids;
    const LockGuard guard(lock_);
    for (const auto& [name, watched] : watched_) {
        pids.insert(watched.pid);
    }
    return pids;
}

// Records the beat of a watched process, and calls back when the process had been lost. Returns
// false when the process is not watched under that name.
bool Monitor::TakeBeat(pid_t pid, const std::string& name) {
    Notice notice{name, pid, {}, BACK};
    {
        const LockGuard guard(lock_);
        const auto found = watched_.find(name);
        if (found == watched_.end() || found->second.pid != pid) {
            return false;
        }
        Watched& watched = found->second;
        watched.isArmed = true;
        watched.lastBeat = Clock::now();
        if (!std::exchange(watched.isLost, false)) {
            return true;
        }
        notice.callback = watched.callback;
    }
    Notify(notice);
    return true;
}

void Monitor::Check() {
    const auto now = Clock::now();
    if (now < nextCheck_) {
        return;
    }
    nextCheck_ = now + CHECK_PERIOD;
    peers_.DropUnregistered(Registered());
    // One loss at a time, because a callback may end the watches of others. All are judged at
    // `now`: during the callbacks no beats are read.
    while (const auto notice = NextLoss(now)) {
        Notify(*notice);
    }
}

std::optional<Monitor::Notice> Monitor::NextLoss(Clock::time_point now) {
    const LockGuard guard(lock_);
    for (auto& [name, watched] : watched_) {
        if (watched.isArmed && !watched.isLost && now - watched.lastBeat >= LOST_AFTER) {
            watched.isLost = true;
            return Notice{name, watched.pid, watched.callback, LOST};
        }
    }
    return std::nullopt;
}

void Monitor::Notify(const Notice& notice) {
    isInCallback = true;
    try {
        notice.callback(notice.name.c_str(), notice.name.size(), notice.pid, notice.status);
    } catch (...) {
        // A callback that fails must not end the process.
    }
    isInCallback = false;
}

// The monitor of the process; null before the first registration.
struct Slot {
    Wire::Mutex lock;
    std::shared_ptr<Monitor> monitor PROCMGR_GUARDED_BY(lock);
};

// Never destroyed: the workers may still use the monitor while the process exits.
Slot& GetSlot() {
    static auto* const slot = new Slot;
    return *slot;
}

bool IsName(const char* name, size_t length) {
    return name != nullptr && length > 0 && length <= MAX_NAME;
}

}  // namespace

int RegisterCheckHeartBeat(const char* name, size_t nameLength, int32_t pid,
                           HeartBeatCallback callback) {
    if (!IsName(name, nameLength) || pid <= 0 || !callback) {
        return -EINVAL;
    }
    Slot& slot = GetSlot();
    const LockGuard guard(slot.lock);
    const std::string_view text(name, nameLength);
    if (slot.monitor != nullptr) {
        const int result = slot.monitor->Watch(text, pid, callback);
        if (result != -ECANCELED) {
            return result;
        }
    }
    auto monitor = std::make_shared<Monitor>();
    const int result = monitor->Start();
    if (result != 0) {
        return result;
    }
    slot.monitor = monitor;
    return monitor->Watch(text, pid, std::move(callback));
}

int UnregisterCheckHeartBeat(const char* name, size_t nameLength) {
    if (!IsName(name, nameLength)) {
        return -EINVAL;
    }
    Slot& slot = GetSlot();
    const LockGuard guard(slot.lock);
    return slot.monitor == nullptr ? -ENOENT : slot.monitor->Unwatch({name, nameLength});
}

void DisableAllCheckHeartBeat() {
    std::shared_ptr<Monitor> monitor;
    {
        Slot& slot = GetSlot();
        const LockGuard guard(slot.lock);
        monitor = slot.monitor;
    }
    if (monitor == nullptr) {
        return;
    }
    monitor->Stop();
    if (!isInCallback) {
        monitor->WaitForRound();
    }
}
