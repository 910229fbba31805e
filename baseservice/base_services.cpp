#include "baseservice/base_services.h"

#include <algorithm>
#include <utility>

#include "app/sensor_node_event_reporter.h"
#include "main/constants.h"
#include "main/log.h"

namespace ProcMgr {

using App::SensorNodeEventReporter;

BaseServices::BaseServices(App::ProcessLauncher& launcher, ReportedState& reportedState,
                           CheckRequests& checks, App::OwnerRegistry& owners,
                           const App::StateReports& reports)
    : launcher_(launcher),
      reportedState_(reportedState),
      checks_(checks),
      owners_(owners),
      reports_(reports) {}

BaseServices::Record* BaseServices::Find(const std::string& name) {
    const auto found = std::find_if(executedBaseApp_.begin(), executedBaseApp_.end(),
                                    [&](const Record& record) { return record.appName_ == name; });
    return found == executedBaseApp_.end() ? nullptr : &*found;
}

bool BaseServices::Start(Record& record) {
    launcher_.LookUpUser(record.uid_);
    const std::lock_guard lock(mutex_);
    // In the list before there is a child: nothing that fails after the fork can lose it.
    executedBaseApp_.push_back(record);
    Record& entry = executedBaseApp_.back();
    const bool isStarted = entry.StartProcess(launcher_) && entry.state_ == STARTING;
    record = entry;
    if (!isStarted) {
        executedBaseApp_.pop_back();
        ProcMgrLog(LOG_ERR, "Start %s failed, state:%s", record.appName_.c_str(),
                   GetProcessStateStr(record.state_).c_str());
        SensorNodeEventReporter::GetInstance().Raise(App::BASE_SERVICE_NODE, record.appName_,
                                                     App::EVENT_START_FAILED, record.nodeType_);
        return false;
    }
    checks_.Request();
    if (Find(record.appName_) == nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : InitOneBaseApplication, not find ownerName=%s",
                   record.appName_.c_str());
        return false;
    }
    return true;
}

bool BaseServices::CheckDepends(const std::set<std::string>& depends, const std::string& name) {
    if (depends.empty()) {
        return true;
    }
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
    const Record* record = Find(name);
    return record == nullptr ? std::nullopt : std::optional(record->state_);
}

bool BaseServices::SetExitStatus(int32_t pid, int32_t status) {
    const std::lock_guard lock(mutex_);
    // A collected exit has freed its pid: it may belong to another process by now.
    const auto found =
        std::find_if(executedBaseApp_.begin(), executedBaseApp_.end(),
                     [&](const Record& record) { return record.pid_ == pid && record.IsAlive(); });
    if (found == executedBaseApp_.end()) {
        return false;
    }
    found->SetExitStatus(status);
    launcher_.Release(*found);
    const bool isYoung = std::chrono::steady_clock::now() - found->startTime_ <= CHECK_PERIOD;
    // At the stop there is no crash loop, but somebody who may still be told.
    isYoung && !isStopping_ ? checks_.Request() : checks_.RequestNow();
    exited_.notify_all();
    return true;
}

void BaseServices::UpdateBaseAppState(const std::string& name, ProcessState reported) {
    const std::lock_guard lock(mutex_);
    Record* record = Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : UpdateBaseAppState failed, not find app=%s from executedBaseApp",
                   name.c_str());
        return;
    }
    // The last word of a process that is gone must not bring its record back to life. A readiness
    // that comes when the stop has begun was sent before the service saw that it is to end.
    if (!record->IsAlive() || record->state_ == TERMINATED ||
        (isStopping_ && reported == RUNNING)) {
        return;
    }
    if (reported == RUNNING) {
        SensorNodeEventReporter::GetInstance().Withdraw(App::BASE_SERVICE_NODE, name,
                                                        App::EVENT_START_FAILED);
    }
    checks_.Request();
    reportedState_.Update([&] {
        record->state_ = reported;
        return true;
    });
}

bool BaseServices::UpdateBaseServerReadyInfo(const std::string& name) {
    const std::lock_guard lock(mutex_);
    Record* record = Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "PUpdateBaseServerReadyInfo failed, not find base app=%s",
                   name.c_str());
        return false;
    }
    return !std::exchange(record->isReady_, record->IsAlive()) && record->isReady_;
}

bool BaseServices::IsReady(const std::string& name) {
    const std::lock_guard lock(mutex_);
    const Record* record = Find(name);
    return record != nullptr && record->isReady_;
}

std::vector<std::string> BaseServices::GetOwners() {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> owners;
    for (const Record& record : executedBaseApp_) {
        // One whose pipe is not open at the moment shows in the log as not reached.
        if (record.isReporting_ || owners_.GetServiceFd(record.appName_) > 0) {
            owners.push_back(record.appName_);
        }
    }
    return owners;
}

bool BaseServices::Visit(const App::RecordVisitor& visitor) {
    const std::lock_guard lock(mutex_);
    return std::any_of(executedBaseApp_.begin(), executedBaseApp_.end(), visitor);
}

std::vector<Message::AppStateInfo> BaseServices::GetStates() {
    const std::lock_guard lock(mutex_);
    std::vector<Message::AppStateInfo> states;
    for (const Record& record : executedBaseApp_) {
        states.push_back(App::MakeStateInfo(record, App::PresentStateOf(record), 0));
    }
    return states;
}

}  // namespace ProcMgr
