// The functions of platform/heartbeat.h: the watched names, the receiving of beats and the search
// for overdue ones, all in rounds on the workers.
#include "platform/heartbeat.h"

#include <sys/epoll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
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

// The watched names and their socket, which is open while names are watched. Thread-safe.
class Monitor {
public:
    // Both return 0 or a negative errno.
    int Watch(std::string_view name, pid_t pid, HeartBeatCallback callback);
    int Unwatch(std::string_view name);
    // Ends all watches, and waits for a running callback unless it is called by one.
    void UnwatchAll();

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
    int32_t OpenLocked() PROCMGR_REQUIRES(lock_);
    void CloseLocked() PROCMGR_REQUIRES(lock_);
    std::set<pid_t> Registered() PROCMGR_EXCLUDES(lock_);
    bool TakeBeat(pid_t pid, const std::string& name) PROCMGR_EXCLUDES(lock_);
    void Check();
    std::optional<Notice> NextLoss(Clock::time_point now) PROCMGR_EXCLUDES(lock_);
    static void Notify(const Notice& notice);

    // Used by the running round; outside of rounds, and for SetTimer, under the lock.
    PlatformHost::HeartbeatPeers peers_;
    // Used by the running round; max() while neither a beat nor a registration can be overdue.
    Clock::time_point nextCheck_ = Clock::time_point::max();

    Wire::Mutex lock_;
    Wire::Condition roundEnded_;
    uint64_t watch_ PROCMGR_GUARDED_BY(lock_) = 0;  // of the socket; 0: not open
    uint64_t roundsBegun_ PROCMGR_GUARDED_BY(lock_) = 0;
    uint64_t roundsEnded_ PROCMGR_GUARDED_BY(lock_) = 0;
    // The socket is to be closed at the end of the round.
    bool isEnding_ PROCMGR_GUARDED_BY(lock_) = false;
    // A name has been registered since the begin of the round.
    bool isChanged_ PROCMGR_GUARDED_BY(lock_) = false;
    std::map<std::string, Watched, std::less<>> watched_ PROCMGR_GUARDED_BY(lock_);
};

int Monitor::Watch(std::string_view name, pid_t pid, HeartBeatCallback callback) {
    const LockGuard guard(lock_);
    const int32_t result = OpenLocked();
    if (result < 0) {
        return result;
    }
    Watched watched;
    watched.pid = pid;
    watched.callback = std::move(callback);
    watched_.insert_or_assign(std::string(name), std::move(watched));
    // Requests a round at once, because the process may be connected already.
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

void Monitor::UnwatchAll() {
    Wire::UniqueLock guard(lock_);
    watched_.clear();
    isEnding_ = watch_ != 0;
    const uint64_t last = roundsBegun_;
    if (roundsEnded_ == last) {
        CloseLocked();
    } else if (!isInCallback) {
        roundEnded_.Wait(guard,
                         [this, last]() PROCMGR_REQUIRES(lock_) { return roundsEnded_ >= last; });
    }
}

int32_t Monitor::OpenLocked() {
    isEnding_ = false;
    if (watch_ != 0) {
        return 0;
    }
    EventWorkers& workers = EventWorkers::Shared();
    int32_t result = workers.Start();
    result = result == 0 ? peers_.Open() : result;
    if (result == 0) {
        watch_ = workers.Watch(peers_.Fd(), EPOLLIN, [this](auto) { OnReady(); });
        result = watch_ != 0 ? 0 : -ENOMEM;
    }
    if (result < 0) {
        peers_.Close();
    }
    return result;
}

void Monitor::CloseLocked() {
    if (std::exchange(isEnding_, false)) {
        EventWorkers::Shared().Forget(std::exchange(watch_, 0));
        peers_.Close();
        nextCheck_ = Clock::time_point::max();
    }
}

void Monitor::OnReady() {
    if (!BeginRound()) {
        return;
    }
    EventWorkers::Shared().BeginBlocking();
    std::this_thread::sleep_for(ROUND_PAUSE);
    try {
        // Beats before the check: beats that came during a long callback are not overdue.
        peers_.Round(Registered(),
                     [this](pid_t pid, const std::string& name) { return TakeBeat(pid, name); });
        Check();
    } catch (const std::exception&) {
        PlatformHost::WriteDiagnostic(LOG_ERR, "heartbeat: out of memory, a round has failed");
    }
    EventWorkers::Shared().EndBlocking();
    EndRound();
}

// Returns false for a late event, whose watch has ended meanwhile.
bool Monitor::BeginRound() {
    const LockGuard guard(lock_);
    if (watch_ == 0 || roundsBegun_ != roundsEnded_) {
        return false;
    }
    ++roundsBegun_;
    isChanged_ = false;
    return true;
}

void Monitor::EndRound() {
    const LockGuard guard(lock_);
    ++roundsEnded_;
    roundEnded_.NotifyAll();
    if (isEnding_) {
        CloseLocked();
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

// Never destroyed: the workers may still use the monitor while the process exits.
Monitor& GetMonitor() {
    static auto* const monitor = new Monitor;
    return *monitor;
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
    return GetMonitor().Watch({name, nameLength}, pid, std::move(callback));
}

int UnregisterCheckHeartBeat(const char* name, size_t nameLength) {
    return IsName(name, nameLength) ? GetMonitor().Unwatch({name, nameLength}) : -EINVAL;
}

void DisableAllCheckHeartBeat() {
    GetMonitor().UnwatchAll();
}
