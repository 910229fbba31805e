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
    unregisterResults_ = Scripted<int>(0);
    watches_.clear();
    registrations_.clear();
    unregistrations_.clear();
    disableAllCalls_ = 0;
}

void FakeHeartBeat::PushRegister(int result) {
    const std::lock_guard lock(mutex_);
    registerResults_.Push(result);
}

void FakeHeartBeat::PushUnregister(int result) {
    const std::lock_guard lock(mutex_);
    unregisterResults_.Push(result);
}

std::vector<FakeHeartBeat::Registered> FakeHeartBeat::Registrations() const {
    const std::lock_guard lock(mutex_);
    return registrations_;
}

std::vector<std::string> FakeHeartBeat::Unregistrations() const {
    const std::lock_guard lock(mutex_);
    return unregistrations_;
}

int FakeHeartBeat::DisableAllCalls() const {
    const std::lock_guard lock(mutex_);
    return disableAllCalls_;
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
    unregistrations_.push_back(name);
    const int result = unregisterResults_.Next();
    if (result == 0) {
        watches_.erase(name);
    }
    return result;
}

void FakeHeartBeat::OnDisableAll() {
    const std::lock_guard lock(mutex_);
    ++disableAllCalls_;
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
