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
}

void FakeAccessManager::PushInit(int result, int error) {
    const std::lock_guard lock(mutex_);
    results_.Push({result, error});
}

void FakeAccessManager::SetHook(std::function<void(const AppConfig&)> hook) {
    const std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
}

int FakeAccessManager::OnInit(const AppConfig& config) {
    std::function<void(const AppConfig&)> hook;
    std::pair<int, int> result;
    {
        const std::lock_guard lock(mutex_);
        hook = hook_;
        result = results_.Next();
    }
    if (hook) {
        hook(config);
    }
    errno = result.second;
    return result.first;
}

}  // namespace ProcMgr::Fakes

int ZornInitProc(const AppConfig& config) {
    return ProcMgr::Fakes::FakeAccessManager::Get().OnInit(config);
}

void ZornRetrieveService() {}
