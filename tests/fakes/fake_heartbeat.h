// The heartbeat library for unit tests: records registrations and lets a test report a heartbeat as
// lost or recovered. Any thread may use it.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/heartbeat.h"
#include "tests/fakes/recorder.h"

namespace ProcMgr::Fakes {

class FakeHeartBeat {
public:
    static FakeHeartBeat& Get() {
        static FakeHeartBeat fake;
        return fake;
    }
    void Reset() {
        registrations_.Reset();
        UnregisterAll();
    }

    // The result of the next registration; 0 when none is queued.
    void PushRegister(int result) { registrations_.Push(0, result); }
    // The name of every registration, failed ones too.
    std::vector<std::string> Registrations() const { return registrations_.Entries(); }
    // The pid watched under `name`; nothing when the name is not watched.
    std::optional<int32_t> Watched(const std::string& name) const {
        const auto watch = Find(name);
        return watch ? std::optional(watch->first) : std::nullopt;
    }

    // Calls the callback of `name` on this thread, without a lock, and returns its result; -1 when
    // `name` is not watched.
    int Notify(const std::string& name, uint32_t status) {
        const auto watch = Find(name);
        return watch ? watch->second(name.c_str(), name.size(), watch->first, status) : -1;
    }

    // For the faked functions only.
    int Register(const std::string& name, int32_t pid, HeartBeatCallback callback) {
        const int result = registrations_.Add(0, name);
        if (result == 0) {
            const std::lock_guard lock(mutex_);
            watches_[name] = {pid, std::move(callback)};
        }
        return result;
    }
    void Unregister(const std::string& name) {
        const std::lock_guard lock(mutex_);
        watches_.erase(name);
    }
    void UnregisterAll() {
        const std::lock_guard lock(mutex_);
        watches_.clear();
    }

private:
    using Watch = std::pair<int32_t, HeartBeatCallback>;

    std::optional<Watch> Find(const std::string& name) const {
        const std::lock_guard lock(mutex_);
        const auto found = watches_.find(name);
        return found == watches_.end() ? std::nullopt : std::optional(found->second);
    }

    Recorder<int, std::string> registrations_;  // one function: the key is 0
    mutable std::mutex mutex_;
    std::map<std::string, Watch> watches_;  // guarded by mutex_
};

}  // namespace ProcMgr::Fakes
