// The calls of platform/heartbeat.h, and the one thread that receives beats and looks for those
// that are overdue.
#include "platform/heartbeat.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/host/heartbeat_peers.h"
#include "wire/blocked_signals.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds CHECK_PERIOD{500};
constexpr std::chrono::milliseconds LOST_AFTER{3000};
constexpr size_t MAX_NAME = 127;

enum Status : uint32_t { BACK = 0, LOST = 1 };

// Whether this thread is one that makes the callbacks.
thread_local bool isMonitorThread = false;

// The watches, their socket and their thread, from the first registration to the end of all.
// Thread-safe but for Join and Detach, one of which is called once.
class Monitor : public std::enable_shared_from_this<Monitor> {
public:
    // Returns 0 or a negative errno.
    int Start();
    // 0, or -125 (ECANCELED) when the monitor has been stopped.
    int Watch(std::string_view name, pid_t pid, HeartBeatCallback callback);
    int Unwatch(std::string_view name);
    // From then on no callback is started.
    void Stop();
    void Join() { thread_.join(); }
    void Detach() { thread_.detach(); }

private:
    struct Watched {
        pid_t pid = 0;
        HeartBeatCallback callback;
        bool isArmed = false;  // has sent a beat
        bool isLost = false;
        Clock::time_point lastBeat;
    };

    // A callback to be made, taken out from under the lock: it may register and unregister.
    struct Notice {
        std::string name;
        pid_t pid = 0;
        HeartBeatCallback callback;
        Status status = LOST;
    };

    void Run();
    std::optional<int> NextTimeout();
    std::set<pid_t> Registered();
    bool TakeBeat(pid_t pid, const std::string& name);
    void Check();
    std::optional<Notice> NextLoss(Clock::time_point now);
    static void Notify(const Notice& notice);

    PlatformHost::HeartbeatPeers peers_;  // used on the thread only, but for Wake
    std::thread thread_;
    Clock::time_point nextCheck_;  // used on the thread only
    bool isChecking_ = false;      // used on the thread only

    std::mutex lock_;  // guards the fields below
    bool isStopped_ = false;
    std::map<std::string, Watched, std::less<>> watched_;
};

int Monitor::Start() {
    const int32_t opened = peers_.Open();
    if (opened < 0) {
        return opened;
    }
    const Wire::BlockedSignals blocked;
    try {
        thread_ = std::thread([self = shared_from_this()] { self->Run(); });
    } catch (const std::system_error& error) {
        return -error.code().value();
    }
    return 0;
}

int Monitor::Watch(std::string_view name, pid_t pid, HeartBeatCallback callback) {
    const std::lock_guard guard(lock_);
    if (isStopped_) {
        return -ECANCELED;
    }
    Watched watched;
    watched.pid = pid;
    watched.callback = std::move(callback);
    watched_.insert_or_assign(std::string(name), std::move(watched));
    peers_.Wake();  // the process may be connected already
    return 0;
}

int Monitor::Unwatch(std::string_view name) {
    const std::lock_guard guard(lock_);
    const auto found = watched_.find(name);
    if (found == watched_.end()) {
        return -ENOENT;
    }
    watched_.erase(found);
    return 0;
}

void Monitor::Stop() {
    {
        const std::lock_guard guard(lock_);
        isStopped_ = true;
        watched_.clear();
    }
    peers_.Wake();
}

void Monitor::Run() {
    isMonitorThread = true;
    pthread_setname_np(pthread_self(), "heartbeat");
    const auto takeBeat = [this](pid_t pid, const std::string& name) {
        return TakeBeat(pid, name);
    };
    while (const auto timeout = NextTimeout()) {
        peers_.Wait(*timeout);
        // First the beats: those that came while a callback took its time are not overdue.
        peers_.Round(Registered(), takeBeat);
        Check();
    }
}

std::set<pid_t> Monitor::Registered() {
    std::set<pid_t> pids;
    const std::lock_guard guard(lock_);
    for (const auto& [name, watched] : watched_) {
        pids.insert(watched.pid);
    }
    return pids;
}

// Milliseconds to wait, -1 while neither a beat nor a registration can be overdue; nothing when
// stopped.
std::optional<int> Monitor::NextTimeout() {
    const auto isDue = [](const auto& entry) {
        return entry.second.isArmed && !entry.second.isLost;
    };
    const std::lock_guard guard(lock_);
    if (isStopped_) {
        return std::nullopt;
    }
    const bool wasChecking = std::exchange(
        isChecking_, !peers_.IsEmpty() || std::any_of(watched_.begin(), watched_.end(), isDue));
    if (!isChecking_) {
        return -1;
    }
    const auto now = Clock::now();
    if (!wasChecking) {
        nextCheck_ = now + CHECK_PERIOD;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextCheck_ - now);
    return static_cast<int>(std::max<int64_t>(0, left.count()));
}

// Notes the beat of a watched process, and tells when it had been lost; false when the process is
// not watched under that name.
bool Monitor::TakeBeat(pid_t pid, const std::string& name) {
    Notice notice{name, pid, {}, BACK};
    {
        const std::lock_guard guard(lock_);
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
    if (!isChecking_ || now < nextCheck_) {
        return;
    }
    nextCheck_ = now + CHECK_PERIOD;
    peers_.DropUnregistered(Registered());
    // One at a time: what a callback unregisters is not told any more. All by the time at which the
    // beats were read: while a callback takes its time, nobody's are.
    while (const auto notice = NextLoss(now)) {
        Notify(*notice);
    }
}

std::optional<Monitor::Notice> Monitor::NextLoss(Clock::time_point now) {
    const std::lock_guard guard(lock_);
    for (auto& [name, watched] : watched_) {
        if (watched.isArmed && !watched.isLost && now - watched.lastBeat >= LOST_AFTER) {
            watched.isLost = true;
            return Notice{name, watched.pid, watched.callback, LOST};
        }
    }
    return std::nullopt;
}

void Monitor::Notify(const Notice& notice) {
    try {
        notice.callback(notice.name.c_str(), notice.name.size(), notice.pid, notice.status);
    } catch (...) {
        // A handler that fails must not take the process down.
    }
}

// The process's monitor. Never destroyed: its thread may still run while the process exits.
struct Slot {
    std::mutex lock;  // guards monitor
    std::shared_ptr<Monitor> monitor;
    std::mutex disabling;  // held until the thread has ended, before `lock`
};

Slot& GetSlot() {
    static Slot* const slot = new Slot;
    return *slot;
}

int StartMonitor(std::shared_ptr<Monitor>& monitor) {
    auto started = std::make_shared<Monitor>();
    const int result = started->Start();
    if (result == 0) {
        monitor = std::move(started);
    }
    return result;
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
    const std::lock_guard guard(slot.lock);
    const std::string_view text(name, nameLength);
    if (slot.monitor != nullptr) {
        const int result = slot.monitor->Watch(text, pid, callback);
        if (result != -ECANCELED) {
            return result;
        }
        // One of its callbacks has ended every watch; its thread goes when that returns.
        slot.monitor->Detach();
        slot.monitor.reset();
    }
    const int result = StartMonitor(slot.monitor);
    return result != 0 ? result : slot.monitor->Watch(text, pid, std::move(callback));
}

int UnregisterCheckHeartBeat(const char* name, size_t nameLength) {
    if (!IsName(name, nameLength)) {
        return -EINVAL;
    }
    Slot& slot = GetSlot();
    const std::lock_guard guard(slot.lock);
    return slot.monitor == nullptr ? -ENOENT : slot.monitor->Unwatch({name, nameLength});
}

void DisableAllCheckHeartBeat() {
    Slot& slot = GetSlot();
    if (isMonitorThread) {
        // Called from a callback: left in place for whoever can wait for the thread.
        const std::lock_guard guard(slot.lock);
        if (slot.monitor != nullptr) {
            slot.monitor->Stop();
        }
        return;
    }
    const std::lock_guard disabling(slot.disabling);
    std::shared_ptr<Monitor> monitor;
    {
        const std::lock_guard guard(slot.lock);
        monitor = std::move(slot.monitor);
    }
    if (monitor != nullptr) {
        monitor->Stop();
        monitor->Join();
    }
}
