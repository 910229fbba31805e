// The access-manager library for unit tests. A child that was really forked records into its own
// copy; what was scripted before the fork holds there too. Any thread may use it.
#pragma once

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

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

    std::vector<AppConfig> InitCalls() const;
    int RetrieveCalls() const;

    // For the library's functions only.
    int OnInit(const AppConfig& config);
    void OnRetrieve();

private:
    FakeAccessManager() = default;

    mutable std::mutex mutex_;
    // All guarded by mutex_.
    Scripted<std::pair<int, int>> results_{{0, 0}};
    std::function<void(const AppConfig&)> hook_;
    std::vector<AppConfig> initCalls_;
    int retrieveCalls_ = 0;
};

}  // namespace ProcMgr::Fakes
