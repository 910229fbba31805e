#include "baseservice/base_services.h"

#include <algorithm>
#include <functional>
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
    Record* entry = executedBaseApp_.Add(record);
    if (entry == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : InitOneBaseApplication, not find ownerName=%s",
                   record.appName_.c_str());
        return false;
    }
    const bool isStarted = StartProcess(*entry, plan);
    record.TakeProcess(*entry);
    if (!isStarted) {
        executedBaseApp_.Remove(record.appName_);
        return false;
    }
    entry->isLaunching_ = true;
    reports_.ReportAppStateToZorn(*entry, RUNNING_NORMAL_START, 0);
    return true;
}

bool BaseServices::StartProcess(Record& record, App::LaunchPlan& plan) {
    executedBaseApp_.GetProcesses().Reserve();
    if (!record.StartProcess(launcher_, plan)) {
        return false;
    }
    executedBaseApp_.GetProcesses().Add(record);
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
    return std::any_of(names.begin(), names.end(),
                       [this](const std::string& name)
                           PROCMGR_REQUIRES(mutex_) { return IsUndecided(name); });
}

bool BaseServices::IsUndecided(const std::string& name) {
    const Record* record = executedBaseApp_.Find(name);
    if (record == nullptr) {
        return false;
    }
    // The next pass restarts a service that has ended normally and whose policy restarts it.
    const bool isRestarted = !isStopping_ && record->GetState() == TERMINATED &&
                             record->IsRestartable() &&
                             record->reportType_ == TERMINATED_NORMAL_EXIT;
    return record->IsUndecided() || isRestarted;
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
        if (executedBaseApp_.GetAll().empty()) {
            ProcMgrLog(LOG_ERR, "PROCMGR : %s 's dependcy %s hasn't been started", self, other);
            return false;
        }
        const Record* record = executedBaseApp_.Find(depend);
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
    const Record* record = executedBaseApp_.Find(name);
    if (record == nullptr) {
        return std::nullopt;
    }
    return record->isLaunching_ && record->GetState() == TERMINATED ? STARTING : record->GetState();
}

bool BaseServices::SetExitStatus(int32_t pid, int32_t status) {
    bool isUrgent = false;
    {
        const LockGuard lock(mutex_);
        Record* record = executedBaseApp_.GetProcesses().Take(pid);
        if (record == nullptr) {
            return false;
        }
        record->SetExitStatus(status);
        executedBaseApp_.AddEnded(*record);
        launcher_.Release(*record);
        ForgetDependent(*record);
        const bool isYoung = std::chrono::steady_clock::now() - record->startTime_ <= CHECK_PERIOD;
        // A service that dies soon after its start waits for the next period, so that a crash loop
        // restarts it once per period. The stop restarts nothing, so every exit is checked at once.
        isUrgent = isStopping_ || !isYoung;
    }
    // Without the lock, because a thread that wakes up here takes it.
    isUrgent ? checks_.RequestNow() : checks_.Request();
    exited_.NotifyAll();
    return true;
}

void BaseServices::UpdateBaseAppState(const std::string& name, ProcessState reported) {
    const LockGuard lock(mutex_);
    Record* record = executedBaseApp_.Find(name);
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
    executedBaseApp_.AddDue(*record);
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
    Record* record = executedBaseApp_.Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PUpdateBaseServerReadyInfo failed, not find base app=%s",
                   name.c_str());
        return false;
    }
    const bool isNew = !std::exchange(record->isReady_, record->IsAlive()) && record->isReady_;
    if (isNew && record->history_ != nullptr) {
        record->history_->NoteReady(std::chrono::steady_clock::now());
    }
    return isNew;
}

bool BaseServices::IsReady(const std::string& name) {
    const LockGuard lock(mutex_);
    const Record* record = executedBaseApp_.Find(name);
    return record != nullptr && record->isReady_ && record->IsAlive();
}

std::vector<std::string> BaseServices::GetOwnersAmong(const std::vector<std::string>& names) {
    const LockGuard lock(mutex_);
    std::map<uint64_t, std::string> owners;
    for (const std::string& name : names) {
        const Record* record = executedBaseApp_.Find(name);
        // Includes a service that has promised to report and whose pipe is not open at the moment:
        // a report to it fails with a log line.
        if (record != nullptr && (record->isReporting_ || owners_.GetServiceFd(name) > 0)) {
            owners[record->startNumber_] = name;
        }
    }
    std::vector<std::string> ordered;
    ordered.reserve(owners.size());
    for (auto& [number, name] : owners) {
        ordered.push_back(std::move(name));
    }
    return ordered;
}

bool BaseServices::Visit(const App::RecordVisitor& visitor) {
    const LockGuard lock(mutex_);
    if (visitor.IsForPriority() && !executedBaseApp_.HasPriority()) {
        return false;
    }
    if (!visitor.GetName() && !visitor.GetPid()) {
        auto& records = executedBaseApp_.GetAll();
        return std::any_of(records.begin(), records.end(), std::cref(visitor));
    }
    Record* record = visitor.GetPid() ? executedBaseApp_.GetProcesses().Find(*visitor.GetPid())
                                      : executedBaseApp_.Find(*visitor.GetName());
    return record != nullptr && visitor(*record);
}

std::vector<Message::AppStateInfo> BaseServices::GetStates() {
    const LockGuard lock(mutex_);
    std::vector<Message::AppStateInfo> states;
    for (const Record& record : executedBaseApp_.GetAll()) {
        states.push_back(App::MakeStateInfo(record, App::PresentStateOf(record), 0));
    }
    return states;
}

}  // namespace ProcMgr
