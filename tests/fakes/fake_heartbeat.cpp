#include "tests/fakes/fake_heartbeat.h"

#include <utility>

namespace ProcMgr::Fakes {

FakeHeartBeat& FakeHeartBeat::Get() {
    static FakeHeartBeat fake;
    return fake;
}

void FakeHeartBeat::Reset() {
    const std::lock_guard lock(mutex_);
    registerResults_ = Scripted<int>(0);
    watches_.clear();
    registrations_.clear();
}

void FakeHeartBeat::PushRegister(int result) {
    const std::lock_guard lock(mutex_);
    registerResults_.Push(result);
}

std::vector<FakeHeartBeat::Registered> FakeHeartBeat::Registrations() const {
    const std::lock_guard lock(mutex_);
    return registrations_;
}

std::optional<int32_t> FakeHeartBeat::Watched(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found = watches_.find(name);
    if (found == watches_.end()) {
        return std::nullopt;
    }
    return found->second.pid;
}

int FakeHeartBeat::Notify(const std::string& name, uint32_t status) {
    const auto pid = Watched(name);
    return pid ? Notify(name, *pid, status) : -1;
}

int FakeHeartBeat::Notify(const std::string& name, int32_t pid, uint32_t status) {
    HeartBeatCallback callback;
    {
        const std::lock_guard lock(mutex_);
        const auto found = watches_.find(name);
        if (found == watches_.end()) {
            return -1;
        }
        callback = found->second.callback;
    }
    return callback(name.c_str(), name.size(), pid, status);
}

int FakeHeartBeat::OnRegister(const std::string& name, int32_t pid, HeartBeatCallback callback) {
    const std::lock_guard lock(mutex_);
    const int result = registerResults_.Next();
    registrations_.push_back({name, pid, result});
    if (result == 0) {
        watches_[name] = {pid, std::move(callback)};
    }
    return result;
}

int FakeHeartBeat::OnUnregister(const std::string& name) {
    const std::lock_guard lock(mutex_);
    watches_.erase(name);
    return 0;
}

void FakeHeartBeat::OnDisableAll() {
    const std::lock_guard lock(mutex_);
    watches_.clear();
}

}  // namespace ProcMgr::Fakes

using ProcMgr::Fakes::FakeHeartBeat;

int RegisterCheckHeartBeat(const char* name, size_t nameLength, int32_t pid,
                           HeartBeatCallback callback) {
    return FakeHeartBeat::Get().OnRegister(std::string(name, nameLength), pid, std::move(callback));
}

int UnregisterCheckHeartBeat(const char* name, size_t nameLength) {
    return FakeHeartBeat::Get().OnUnregister(std::string(name, nameLength));
}

void DisableAllCheckHeartBeat() {
    FakeHeartBeat::Get().OnDisableAll();
}
