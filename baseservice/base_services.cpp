#include "baseservice/base_services.h"

#include <algorithm>
#include <utility>

#include "main/common/log.h"

namespace ProcMgr {

BaseServices::BaseServices(App::ProcessLauncher& launcher, ReportedState& reportedState,
                           CheckRequests& checks, App::OwnerRegistry& owners,
                           App::StateReports& reports, App::SensorNodeEventReporter& faults)
    : launcher_(launcher),
      reportedState_(reportedState),
      checks_(checks),
      owners_(owners),
      reports_(reports),
      faults_(faults) {}

BaseServices::Record* BaseServices::Find(const std::string& name) {
    const auto found = std::find_if(executedBaseApp_.begin(), executedBaseApp_.end(),
                                    [&](const Record& record) { return record.appName_ == name; });
    return found == executedBaseApp_.end() ? nullptr : &*found;
}

bool BaseServices::Start(Record& record) {
    std::optional<App::LaunchPlan> plan = launcher_.Prepare(record);
    if (!plan || !StartInList(record, *plan)) {
        ProcMgrLog(LOG_ERR, "Start %s failed, state:%s", record.appName_.c_str(),
                   GetProcessStateStr(record.GetState()).c_str());
        RaiseFault(record, App::EVENT_START_FAILED);
        return false;
    }
    reports_.Flush();
    return true;
}

bool BaseServices::StartInList(Record& record, App::LaunchPlan& plan) {
    const LockGuard lock(mutex_);
    if (isStopping_) {
        return false;
    }
    // The record is added before the fork, so that a failure after the fork cannot lose the child.
    executedBaseApp_.push_back(record);
    Record* entry = Find(record.appName_);
    if (entry == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : InitOneBaseApplication, not find ownerName=%s",
                   record.appName_.c_str());
        return false;
    }
    const bool isStarted = entry->StartProcess(launcher_, plan) && entry->GetState() == STARTING;
    record.TakeProcess(*entry);
    if (!isStarted) {
        executedBaseApp_.pop_back();
        return false;
    }
    entry->isLaunching_ = true;
    reports_.ReportAppStateToZorn(*entry, RUNNING_NORMAL_START, 0);
    return true;
}

void BaseServices::RaiseFault(const Record& record, int32_t event) {
    faults_.Raise(App::BASE_SERVICE_NODE, record.appName_, event, record.nodeType_);
}

void BaseServices::WithdrawFault(const std::string& name, int32_t event) {
    faults_.Withdraw(App::BASE_SERVICE_NODE, name, event);
}

bool BaseServices::IsAnyUndecided(const std::set<std::string>& names) {
    const LockGuard lock(mutex_);
    const bool isRestarting = !isStopping_;
    return std::any_of(executedBaseApp_.begin(), executedBaseApp_.end(), [&](const Record& record) {
        // The next pass restarts a service that has ended normally and whose policy restarts it.
        const bool isRestarted = isRestarting && record.GetState() == TERMINATED &&
                                 record.IsRestartable() &&
                                 record.reportType_ == TERMINATED_NORMAL_EXIT;
        return (record.IsUndecided() || isRestarted) && names.contains(record.appName_);
    });
}

bool BaseServices::CheckDepends(const std::set<std::string>& depends, const std::string& name) {
    if (depends.empty()) {
        return true;
    }
    const LockGuard lock(mutex_);
    for (const std::string& depend : depends) {
        const char* self = name.c_str();
        const char* other = depend.c_str();
        ProcMgrLog(LOG_INFO, "PROCMGR : %s depends on %s [%s => %s]", self, other, self, other);
        if (executedBaseApp_.empty()) {
            ProcMgrLog(LOG_ERR, "PROCMGR : %s 's dependcy %s hasn't been started", self, other);
            return false;
        }
        const Record* record = Find(depend);
        if (record == nullptr) {
            ProcMgrLog(LOG_ERR, "PROCMGR : %s 's dependcy %s not find,", self, other);
            return false;
        }
        if (!record->IsAlive()) {
            ProcMgrLog(LOG_ERR, "PROCMGR : %s's dependcy %s hasn't been started", self, other);
            return false;
        }
        ProcMgrLog(LOG_INFO, "PROCMGR : %s's dependcy %s has been started", self, other);
    }
    return true;
}

std::optional<ProcessState> BaseServices::GetState(const std::string& name) {
    const LockGuard lock(mutex_);
    const Record* record = Find(name);
    if (record == nullptr) {
        return std::nullopt;
    }
    return record->isLaunching_ && record->GetState() == TERMINATED ? STARTING : record->GetState();
}

bool BaseServices::SetExitStatus(int32_t pid, int32_t status) {
    const LockGuard lock(mutex_);
    // Only records that are alive: the pid of a collected process may have been reused.
    const auto found =
        std::find_if(executedBaseApp_.begin(), executedBaseApp_.end(),
                     [&](const Record& record) { return record.pid_ == pid && record.IsAlive(); });
    if (found == executedBaseApp_.end()) {
        return false;
    }
    found->SetExitStatus(status);
    launcher_.Release(*found);
    const bool isYoung = std::chrono::steady_clock::now() - found->startTime_ <= CHECK_PERIOD;
    // A service that dies soon after its start waits for the next period, so that a crash loop
    // restarts it once per period. The stop restarts nothing, so every exit is checked at once.
    isYoung && !isStopping_ ? checks_.Request() : checks_.RequestNow();
    exited_.NotifyAll();
    return true;
}

void BaseServices::UpdateBaseAppState(const std::string& name, ProcessState reported) {
    const LockGuard lock(mutex_);
    Record* record = Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : UpdateBaseAppState failed, not find app=%s from executedBaseApp",
                   name.c_str());
        return;
    }
    // A report of a process that has ended must not make its record alive again. A report of
    // RUNNING after the stop has begun was sent before the service received its SIGTERM.
    if (!record->IsAlive() || record->GetState() == TERMINATED ||
        (isStopping_ && reported == RUNNING)) {
        return;
    }
    if (reported == RUNNING) {
        WithdrawFault(name, App::EVENT_START_FAILED);
    }
    checks_.Request();
    record->ChangeState(reported, App::ChangeReason::REPORTED);
    reportedState_.Notify();
}

void BaseServices::BeginStop() {
    const LockGuard lock(mutex_);
    isStopping_ = true;
}

bool BaseServices::UpdateBaseServerReadyInfo(const std::string& name) {
    const LockGuard lock(mutex_);
    Record* record = Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PUpdateBaseServerReadyInfo failed, not find base app=%s",
                   name.c_str());
        return false;
    }
    return !std::exchange(record->isReady_, record->IsAlive()) && record->isReady_;
}

bool BaseServices::IsReady(const std::string& name) {
    const LockGuard lock(mutex_);
    const Record* record = Find(name);
    return record != nullptr && record->isReady_ && record->IsAlive();
}

std::vector<std::string> BaseServices::GetOwners() {
    const LockGuard lock(mutex_);
    std::vector<std::string> owners;
    for (const Record& record : executedBaseApp_) {
        // Includes a service that has promised to report and whose pipe is not open at the moment:
        // a report to it fails with a log line.
        if (record.isReporting_ || owners_.GetServiceFd(record.appName_) > 0) {
            owners.push_back(record.appName_);
        }
    }
    return owners;
}

bool BaseServices::Visit(const App::RecordVisitor& visitor) {
    const LockGuard lock(mutex_);
    return std::any_of(executedBaseApp_.begin(), executedBaseApp_.end(), visitor);
}

std::vector<Message::AppStateInfo> BaseServices::GetStates() {
    const LockGuard lock(mutex_);
    std::vector<Message::AppStateInfo> states;
    for (const Record& record : executedBaseApp_) {
        states.push_back(App::MakeStateInfo(record, App::PresentStateOf(record), 0));
    }
    return states;
}

}  // namespace ProcMgr
