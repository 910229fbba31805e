// The stop of the base services: the order of the SIGTERMs, the kills and the waits for exits.
#include <algorithm>
#include <chrono>
#include <csignal>

#include "app/scheduler_workers.h"
#include "app/signals.h"
#include "baseservice/base_services.h"
#include "main/common/log.h"

namespace ProcMgr {

void BaseServices::StopAll() {
    BeginStop();
    UniqueLock lock(mutex_);
    std::vector<std::string> names;
    for (auto record = executedBaseApp_.rbegin(); record != executedBaseApp_.rend(); ++record) {
        names.push_back(record->appName_);
    }
    Endings endings;
    for (const std::string& name : names) {
        WaitWhile(lock, endings, [&]() PROCMGR_REQUIRES(mutex_) { return IsNeeded(name); });
        Terminate(name, endings);
    }
    WaitWhile(lock, endings, [] { return true; });
}

bool BaseServices::IsNeeded(const std::string& name) const {
    return std::any_of(executedBaseApp_.begin(), executedBaseApp_.end(), [&](const Record& record) {
        return record.IsAlive() && record.dependList_.contains(name);
    });
}

void BaseServices::Terminate(const std::string& name, Endings& endings) {
    Record* record = Find(name);
    if (record == nullptr || !record->IsAlive()) {
        return;
    }
    record->TermProcess();
    checks_.Request();
    record->ChangeState(TERMINATING, App::ChangeReason::TERMINATION);
    reportedState_.Notify();
    endings.byName[name] = {std::chrono::steady_clock::now() +
                            std::chrono::milliseconds(record->termTimeout_)};
}

void BaseServices::WaitWhile(UniqueLock& lock, Endings& endings,
                             const std::function<bool()>& condition) {
    while (condition()) {
        const std::optional<SteadyTime> next = KillLate(endings);
        if (!next) {
            return;
        }
        const SteadyTime begin = std::chrono::steady_clock::now();
        exited_.WaitUntil(lock, *next);
        const bool isAnyKilled =
            std::any_of(endings.byName.begin(), endings.byName.end(),
                        [](const auto& ending) { return ending.second.isKilled; });
        if (isAnyKilled) {
            endings.killPatience -= std::chrono::steady_clock::now() - begin;
        }
    }
}

std::optional<SteadyTime> BaseServices::KillLate(Endings& endings) {
    const SteadyTime now = std::chrono::steady_clock::now();
    std::optional<SteadyTime> next;
    for (auto entry = endings.byName.begin(); entry != endings.byName.end();) {
        auto& [name, ending] = *entry;
        const Record* record = Find(name);
        const bool isGone = record == nullptr || !record->IsAlive();
        const bool isGivenUp = !isGone && ending.isKilled && endings.killPatience.count() <= 0;
        if (isGivenUp) {
            ProcMgrLog(LOG_ERR, "PROCMGR : %s, pid=%d has not ended after SIGKILL, give up",
                       name.c_str(), record->pid_);
        }
        if (isGone || isGivenUp) {
            entry = endings.byName.erase(entry);
            continue;
        }
        if (!ending.isKilled && now >= ending.killTime) {
            App::TermRqdSubProc(name, record->pid_);
            App::SendSignal(SIGKILL, name, record->pid_);
            ending.isKilled = true;
        }
        const SteadyTime due = ending.isKilled ? now + endings.killPatience : ending.killTime;
        next = next ? std::min(*next, due) : due;
        ++entry;
    }
    return next;
}

}  // namespace ProcMgr
