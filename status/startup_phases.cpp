#include "status/startup_phases.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>

namespace ProcMgr::Status {
namespace {

constexpr std::array NAMES = {"main",          "init",          "priority-apps", "waiting-continue",
                              "continue-init", "base-services", "running",       "stopping"};
static_assert(NAMES.size() == static_cast<size_t>(Phase::STOPPING) + 1);

}  // namespace

const char* NameOf(Phase phase) {
    return NAMES.at(static_cast<size_t>(phase));
}

void StartupPhases::Enter(Phase phase) {
    const LockGuard lock(mutex_);
    const bool isLate =
        std::any_of(entered_.begin(), entered_.end(), [phase](const Entered& entered) {
            return entered.phase == phase || entered.phase == Phase::STOPPING;
        });
    if (!isLate) {
        entered_.push_back({phase, std::chrono::steady_clock::now()});
    }
}

std::vector<StartupPhases::Entered> StartupPhases::Get() const {
    const LockGuard lock(mutex_);
    return entered_;
}

}  // namespace ProcMgr::Status
