// The orderly end of the base services.
#include <algorithm>
#include <chrono>
#include <csignal>

#include "app/signals.h"
#include "baseservice/base_services.h"
#include "main/log.h"

namespace ProcMgr {
namespace {

// How long a killed process may take to go, in the kernel's hands, before it is left behind.
constexpr std::chrono::seconds KILL_PATIENCE{5};

}  // namespace

void BaseServices::StopAll() {
    std::unique_lock lock(mutex_);
    isStopping_ = true;
    std::vector<std::string> names;
    for (auto record = executedBaseApp_.rbegin(); record != executedBaseApp_.rend(); ++record) {
        names.push_back(record->appName_);
    }
    Endings endings;
    for (const std::string& name : names) {
        WaitWhile(lock, endings, [&] { return IsNeeded(name); });
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
    reportedState_.Update([&] {
        record->state_ = TERMINATING;
        return true;
    });
    endings[name] = {std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(record->termTimeout_)};
}

void BaseServices::WaitWhile(std::unique_lock<std::mutex>& lock, Endings& endings,
                             const std::function<bool()>& condition) {
    while (condition()) {
        const std::optional<SteadyTime> next = KillLate(endings);
        if (!next) {
            return;
        }
        exited_.wait_until(lock, *next);
    }
}

std::optional<SteadyTime> BaseServices::KillLate(Endings& endings) {
    const SteadyTime now = std::chrono::steady_clock::now();
    std::optional<SteadyTime> next;
    for (auto entry = endings.begin(); entry != endings.end();) {
        auto& [name, ending] = *entry;
        Record* record = Find(name);
        const bool isLate = now >= ending.due;
        const bool isGone = record == nullptr || !record->IsAlive();
        if (!isGone && isLate && ending.isKilled) {
            ProcMgrLog(LOG_ERR, "PROCMGR : %s, pid=%d does not end, it is left behind",
                       name.c_str(), record->pid_);
        }
        if (isGone || (isLate && ending.isKilled)) {
            entry = endings.erase(entry);
            continue;
        }
        if (isLate) {
            App::TermRqdSubProc(name, record->pid_);
            App::SendSignal(SIGKILL, name, record->pid_);
            ending = {now + KILL_PATIENCE, true};
        }
        next = next ? std::min(*next, ending.due) : ending.due;
        ++entry;
    }
    return next;
}

}  // namespace ProcMgr
