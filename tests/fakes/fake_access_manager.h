// The access-manager library for unit tests: what was scripted before a fork holds in the child
// too. Any thread may use it.
#pragma once

#include <functional>
#include <mutex>
#include <utility>

#include "platform/access_manager.h"
#include "tests/fakes/scripted.h"

namespace ProcMgr::Fakes {

class FakeAccessManager {
public:
    static FakeAccessManager& Get();
    void Reset();

    // Result and errno of the next registration; 0 when none is left.
    void PushInit(int result, int error);
    // Called at each registration, without a lock.
    void SetHook(std::function<void(const AppConfig&)> hook);

    // For the library's functions only.
    int OnInit(const AppConfig& config);

private:
    FakeAccessManager() = default;

    mutable std::mutex mutex_;
    // All guarded by mutex_.
    Scripted<std::pair<int, int>> results_{{0, 0}};
    std::function<void(const AppConfig&)> hook_;
};

}  // namespace ProcMgr::Fakes
