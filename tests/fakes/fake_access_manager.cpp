#include "tests/fakes/fake_access_manager.h"

#include <cerrno>

namespace ProcMgr::Fakes {

FakeAccessManager& FakeAccessManager::Get() {
    static FakeAccessManager fake;
    return fake;
}

void FakeAccessManager::Reset() {
    const std::lock_guard lock(mutex_);
    results_ = Scripted<std::pair<int, int>>({0, 0});
    hook_ = nullptr;
    initCalls_.clear();
    retrieveCalls_ = 0;
}

void FakeAccessManager::PushInit(int result, int error) {
    const std::lock_guard lock(mutex_);
    results_.Push({result, error});
}

void FakeAccessManager::SetHook(std::function<void(const AppConfig&)> hook) {
    const std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
}

std::vector<AppConfig> FakeAccessManager::InitCalls() const {
    const std::lock_guard lock(mutex_);
    return initCalls_;
}

int FakeAccessManager::RetrieveCalls() const {
    const std::lock_guard lock(mutex_);
    return retrieveCalls_;
}

int FakeAccessManager::OnInit(const AppConfig& config) {
    std::function<void(const AppConfig&)> hook;
    std::pair<int, int> result;
    {
        const std::lock_guard lock(mutex_);
        initCalls_.push_back(config);
        hook = hook_;
        result = results_.Next();
    }
    if (hook) {
        hook(config);
    }
    errno = result.second;
    return result.first;
}

void FakeAccessManager::OnRetrieve() {
    const std::lock_guard lock(mutex_);
    ++retrieveCalls_;
}

}  // namespace ProcMgr::Fakes

int ZornInitProc(const AppConfig& config) {
    return ProcMgr::Fakes::FakeAccessManager::Get().OnInit(config);
}

void ZornRetrieveService() {
    ProcMgr::Fakes::FakeAccessManager::Get().OnRetrieve();
}
