#include "baseservice/base_services.h"

#include <algorithm>

#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/log.h"

namespace ProcMgr {
namespace {

constexpr uint32_t HEARTBEAT_BACK = 0;
constexpr uint32_t HEARTBEAT_LOST = 1;

}  // namespace

BaseServices::BaseServices(App::ProcessLauncher& launcher, ReportedState& reportedState)
    : launcher_(launcher), reportedState_(reportedState) {}

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
        return false;
    }
    RequestCheck();
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
    RequestCheck();
    exited_.notify_all();
    return true;
}

bool BaseServices::NeedsCheck(const Record& record) {
    // A service that is coming up to report itself, or going down, is moved by its word or its
    // exit.
    const bool isWaiting =
        record.state_ == TERMINATING || (record.state_ == STARTING && record.isReporting_);
    if (isWaiting && record.IsAlive()) {
        return false;
    }
    return record.state_ != TERMINATED && !record.IsSettled();
}

void BaseServices::RequestCheck() {
    isCheckNeeded_ = true;
    checkNeeded_.notify_one();
}

void BaseServices::WaitForWork(const std::atomic<bool>& running) {
    std::unique_lock lock(mutex_);
    checkNeeded_.wait(lock, [&] { return isCheckNeeded_ || !running; });
}

void BaseServices::WakeWaiter() {
    const std::lock_guard lock(mutex_);
    checkNeeded_.notify_one();
}

void BaseServices::CheckBaseApps() {
    const std::lock_guard lock(mutex_);
    if (!isCheckNeeded_) {
        return;
    }
    isCheckNeeded_ = false;
    for (Record& record : executedBaseApp_) {
        if (NeedsCheck(record)) {
            CheckOne(record);
            isCheckNeeded_ = isCheckNeeded_ || NeedsCheck(record);
        }
    }
}

void BaseServices::CheckOne(Record& record) {
    reportedState_.Update([&] {
        const ProcessState before = record.state_;
        record.state_ = record.CheckState();
        return record.state_ != before;
    });
    if (record.reportType_ == TERMINATED_ABNORMAL_EXIT) {
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR: CheckThread : owner=%s, pid=%d, state=%s unexpectedly terminated.",
                   record.appName_.c_str(), record.pid_, GetProcessStateStr(record.state_).c_str());
    }
}

void BaseServices::HandleStateReport(const std::string& name,
                                     const Message::BaseServiceStateInfo& info) {
    ProcMgrLog(LOG_INFO, "%s PM receive BASESERVICE_STATE_REPORT msg from %s report state=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), name.c_str(),
               GetBaseServiceStateTypeStr(info.state).c_str());
    const auto reported = static_cast<BaseServiceStateType>(info.state);
    if (reported != BaseServiceStateType::RUNNING &&
        reported != BaseServiceStateType::TERMINATING) {
        return;
    }
    const std::lock_guard lock(mutex_);
    Record* record = Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : UpdateBaseAppState failed, not find app=%s from executedBaseApp",
                   name.c_str());
        return;
    }
    RequestCheck();
    reportedState_.Update([&] {
        // The last word of a process that is gone must not bring its record back to life.
        if (record->state_ == TERMINATED || record->exitStatusSet_) {
            return false;
        }
        // Sent while it was coming up, before it saw that it is to end.
        if (isStopping_ && reported == BaseServiceStateType::RUNNING) {
            return false;
        }
        record->state_ = reported == BaseServiceStateType::RUNNING ? RUNNING : TERMINATING;
        return true;
    });
}

int BaseServices::HeartBeatNotify(const char* name, size_t nameLength, int32_t pid,
                                  uint32_t status) {
    if (name == nullptr || nameLength == 0) {
        ProcMgrLog(LOG_ERR, "Process heart beat notify, app name is invalid. (nameLen=%zu)",
                   nameLength);
        return 0;
    }
    const std::string app(name, nameLength);
    const std::lock_guard lock(mutex_);
    if (Find(app) == nullptr) {
        ProcMgrLog(LOG_ERR, "Process heart beat notify, not find base app=%s", app.c_str());
        return 0;
    }
    if (status != HEARTBEAT_BACK && status != HEARTBEAT_LOST) {
        ProcMgrLog(LOG_WARNING, "App status is invalid. (status=%u)", status);
        return 0;
    }
    ProcMgrLog(LOG_INFO,
               status == HEARTBEAT_LOST
                   ? "Process heart beat notify. (app=%s,pid=%d,status=lost)"
                   : "Process heart beat notify. (app=%s,pid=%d,status=recovery)",
               app.c_str(), pid);
    return 1;
}

}  // namespace ProcMgr
