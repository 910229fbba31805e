// What base start-up and the status endpoint need of the histories of the base services. The
// functions of base start-up return at once while the status endpoint is off.
#include <algorithm>
#include <chrono>
#include <utility>

#include "baseservice/base_services.h"

namespace ProcMgr {
namespace {

// The number of services that are copied under one hold of the lock.
constexpr size_t COPIES_AT_A_TIME = 128;

}  // namespace

void BaseServices::NoteConfigError(const std::string& reason) {
    if (changeLog_ == nullptr) {
        return;
    }
    const LockGuard lock(mutex_);
    configError_ = reason.empty() ? "the base file cannot be used, see the log" : reason;
}

std::string BaseServices::GetConfigError() {
    const LockGuard lock(mutex_);
    return configError_;
}

void BaseServices::SetPlan(BootPlan plan) {
    const LockGuard lock(mutex_);
    plan_ = std::move(plan);
    configError_.clear();
}

std::shared_ptr<App::AppHistory> BaseServices::GetHistory(const std::string& name) {
    if (changeLog_ == nullptr) {
        return nullptr;
    }
    const LockGuard lock(mutex_);
    const BootPlan::Entry* entry = plan_.Find(name);
    return entry == nullptr ? nullptr : entry->history;
}

void BaseServices::NoteReleased(const std::string& name) {
    if (changeLog_ == nullptr) {
        return;
    }
    const LockGuard lock(mutex_);
    if (BootPlan::Entry* entry = plan_.Find(name)) {
        entry->verdict = StartVerdict::RELEASED;
        entry->history->NoteReleased(std::chrono::steady_clock::now());
    }
}

void BaseServices::NoteBlocked(const std::string& name) {
    if (changeLog_ == nullptr) {
        return;
    }
    const LockGuard lock(mutex_);
    BootPlan::Entry* entry = plan_.Find(name);
    if (entry == nullptr) {
        return;
    }
    entry->verdict = StartVerdict::DEPENDENCY;
    const auto& depends = entry->history->GetFacts()->depends;
    const auto blocker = std::find_if(depends.begin(), depends.end(),
                                      [this](const std::string& depend) PROCMGR_REQUIRES(mutex_) {
                                          return executedBaseApp_.FindLive(depend) == nullptr;
                                      });
    // The blocker may run again by now.
    entry->blocker = blocker == depends.end() ? std::string() : *blocker;
}

void BaseServices::NoteCycles(const std::set<std::string>& names) {
    const LockGuard lock(mutex_);
    plan_.SettleBlocked(names);
}

void BaseServices::NoteStartUpEnd() {
    const LockGuard lock(mutex_);
    plan_.SettleWaiting(StartVerdict::ABANDONED);
}

std::vector<ServiceView> BaseServices::GetViews() {
    size_t count = 0;
    {
        const LockGuard lock(mutex_);
        count = plan_.GetSize();
    }
    // The memory is allocated, and touched, without the lock.
    std::vector<ServiceView> views(count);
    for (size_t begin = 0; begin < count; begin += COPIES_AT_A_TIME) {
        const LockGuard lock(mutex_);
        for (size_t i = begin; i < std::min(begin + COPIES_AT_A_TIME, count); ++i) {
            FillView(plan_.Get(i), views[i]);
        }
    }
    return views;
}

void BaseServices::FillView(const BootPlan::Entry& entry, ServiceView& view) {
    const Record* record = executedBaseApp_.Find(entry.history->GetFacts()->name);
    const bool isKept = record != nullptr && record->history_ == entry.history;
    view.app = isKept ? App::MakeView(*record) : App::MakeView(*entry.history);
    if (isKept) {
        view.app.isReady = record->isReady_ && record->IsAlive();
        view.app.mayRestart = record->IsRestartable();
    }
    view.verdict = entry.verdict;
    view.blocker = entry.blocker;
}

}  // namespace ProcMgr
