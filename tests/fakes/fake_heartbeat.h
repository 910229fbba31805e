// The heartbeat library for unit tests: records registrations and lets a test say that a beat is
// lost or back. Any thread may use it.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/heartbeat.h"
#include "tests/fakes/scripted.h"

namespace ProcMgr::Fakes {

class FakeHeartBeat {
public:
    struct Registered {
        std::string name;
        int32_t pid = 0;
        int result = 0;
    };

    static FakeHeartBeat& Get();

    void Reset();

    // The result of the next registration; 0 when none is left.
    void PushRegister(int result);

    std::vector<Registered> Registrations() const;  // every call
    // The pid watched under `name`; nothing when it is not watched.
    std::optional<int32_t> Watched(const std::string& name) const;

    // Calls the callback of `name` with what was registered, on this thread and without a lock.
    // Returns its result; -1 when `name` is not watched. `pid` in place of the registered one.
    int Notify(const std::string& name, uint32_t status);
    int Notify(const std::string& name, int32_t pid, uint32_t status);

    // For the library's functions only.
    int OnRegister(const std::string& name, int32_t pid, HeartBeatCallback callback);
    int OnUnregister(const std::string& name);
    void OnDisableAll();

private:
    struct Watch {
        int32_t pid = 0;
        HeartBeatCallback callback;
    };

    FakeHeartBeat() = default;

    mutable std::mutex mutex_;
    // All guarded by mutex_.
    Scripted<int> registerResults_{0};
    std::map<std::string, Watch> watches_;
    std::vector<Registered> registrations_;
};

}  // namespace ProcMgr::Fakes
