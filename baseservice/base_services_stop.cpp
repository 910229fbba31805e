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
    auto& records = executedBaseApp_.GetAll();
    for (auto record = records.rbegin(); record != records.rend(); ++record) {
        names.push_back(record->appName_);
    }
    CountDependents();
    Endings endings;
    for (const std::string& name : names) {
        WaitWhile(lock, endings, [&]() PROCMGR_REQUIRES(mutex_) { return IsNeeded(name); });
        Terminate(name, endings);
    }
    WaitWhile(lock, endings, [] { return true; });
}

// From here on the counts only fall, because nothing is started any more.
void BaseServices::CountDependents() {
    // The reaper must not see a part of the counts, should the memory run out.
    std::map<std::string, size_t> counts;
    for (const Record& record : executedBaseApp_.GetAll()) {
        if (!record.IsAlive()) {
            continue;
        }
        for (const std::string& depend : record.dependList_) {
            ++counts[depend];
        }
    }
    liveDependents_.swap(counts);
}

void BaseServices::ForgetDependent(const Record& record) {
    if (liveDependents_.empty()) {
        return;
    }
    for (const std::string& depend : record.dependList_) {
        --liveDependents_.at(depend);
    }
}

bool BaseServices::IsNeeded(const std::string& name) const {
    const auto found = liveDependents_.find(name);
    return found != liveDependents_.end() && found->second > 0;
}

void BaseServices::Terminate(const std::string& name, Endings& endings) {
    Record* record = executedBaseApp_.FindLive(name);
    if (record == nullptr) {
        return;
    }
    record->TermProcess();
    checks_.Request();
    record->ChangeState(TERMINATING, App::ChangeReason::TERMINATION);
    reportedState_.Notify();
    const auto killTime =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(record->termTimeout_);
    endings.byKillTime.emplace(killTime, name);
}

void BaseServices::WaitWhile(UniqueLock& lock, Endings& endings,
                             const std::function<bool()>& condition) {
    while (condition()) {
        const std::optional<SteadyTime> next = KillLate(endings);
        if (!next) {
            return;
        }
        const bool isAnyKilled = !endings.killed.empty();
        const SteadyTime begin = std::chrono::steady_clock::now();
        exited_.WaitUntil(lock, *next);
        if (isAnyKilled) {
            endings.killPatience -= std::chrono::steady_clock::now() - begin;
        }
    }
}

// Looks only at the first entries of the lists, because it is called after every exit.
std::optional<SteadyTime> BaseServices::KillLate(Endings& endings) {
    DropKilled(endings);
    const SteadyTime now = std::chrono::steady_clock::now();
    auto& waiting = endings.byKillTime;
    while (!waiting.empty()) {
        const auto& [killTime, name] = *waiting.begin();
        if (const Record* record = executedBaseApp_.FindLive(name)) {
            if (now < killTime) {
                break;
            }
            App::TermRqdSubProc(name, record->pid_);
            App::SendSignal(SIGKILL, name, record->pid_);
            endings.killed.push_back(name);
        }
        waiting.erase(waiting.begin());
    }
    std::optional<SteadyTime> next;
    if (!waiting.empty()) {
        next = waiting.begin()->first;
    }
    if (!endings.killed.empty()) {
        next = std::min(next.value_or(SteadyTime::max()), now + endings.killPatience);
    }
    return next;
}

void BaseServices::DropKilled(Endings& endings) {
    auto& killed = endings.killed;
    const bool isOver = endings.killPatience.count() <= 0;
    while (!killed.empty()) {
        const Record* record = executedBaseApp_.FindLive(killed.back());
        if (record != nullptr && !isOver) {
            return;
        }
        if (record != nullptr) {
            ProcMgrLog(LOG_ERR, "PROCMGR : %s, pid=%d has not ended after SIGKILL, give up",
                       killed.back().c_str(), record->pid_);
        }
        killed.pop_back();
    }
}

}  // namespace ProcMgr
