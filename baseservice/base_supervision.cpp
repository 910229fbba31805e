// What CheckThread and the heartbeat library do with the base services.
#include <algorithm>
#include <chrono>

#include "app/sensor_node_event_reporter.h"
#include "baseservice/base_services.h"
#include "main/constants.h"
#include "main/log.h"
#include "platform/heartbeat.h"

namespace ProcMgr {
namespace {

constexpr uint32_t HEARTBEAT_BACK = 0;
constexpr uint32_t HEARTBEAT_LOST = 1;

// What the access manager is told about an exit.
constexpr uint32_t RESULT_NONE = 0;
constexpr uint32_t RESULT_INPUT_OUTPUT_ERROR = 1;

void Raise(const App::AppInfo& app, int32_t event) {
    App::SensorNodeEventReporter::GetInstance().Raise(App::BASE_SERVICE_NODE, app.appName_, event,
                                                      app.nodeType_);
}

void Withdraw(const std::string& name, int32_t event) {
    App::SensorNodeEventReporter::GetInstance().Withdraw(App::BASE_SERVICE_NODE, name, event);
}

// The end of the watch is the end of its fault, too.
void EndHeartBeat(const std::string& name) {
    UnregisterCheckHeartBeat(name.c_str(), name.size());
    Withdraw(name, App::EVENT_HEARTBEAT_LOST);
}

bool IsRestartable(const App::AppInfo& app) {
    return app.restartPolicy_ == RESTART_ON_FAILURE || app.restartPolicy_ == RESTART_ON_FOREVER;
}

constexpr const char* DIED =
    "PROCMGR: CheckThread : owner=%s, pid=%d, state=%s unexpectedly terminated.";
constexpr const char* NOT_RESTARTED =
    "PROCMGR: CheckThread : owner=%s, pid=%d, state=%s doesn't need to restart";
constexpr const char* RESTARTS =
    "PROCMGR: CheckThread : owner=%s, pid=%d, state=%s will restart now";
constexpr const char* RESTART_FAILED =
    "PROCMGR: CheckThread : owner=%s, pid=%d, state=%s restart failed";
constexpr const char* RESTARTED =
    "PROCMGR: CheckThread : owner=%s, pid=%d, state=%s restart success";

void LogSupervised(int level, const char* format, const App::AppInfo& app) {
    ProcMgrLog(level, format, app.appName_.c_str(), app.pid_,
               GetProcessStateStr(app.state_).c_str());
}

}  // namespace

void BaseServices::CheckBaseApps(CheckPass pass) {
    const std::lock_guard order(reportOrder_);
    const std::vector<App::AppInfo> ended = CheckStates(pass);
    for (const App::AppInfo& app : ended) {
        GiveUp(app);
    }
    for (const App::AppInfo& app : RestartTerminated(ended)) {
        Reconnect(app);
    }
}

std::vector<App::AppInfo> BaseServices::CheckStates(CheckPass pass) {
    std::vector<App::AppInfo> ended;
    const std::lock_guard lock(mutex_);
    const SteadyTime now = std::chrono::steady_clock::now();
    for (Record& record : executedBaseApp_) {
        if (!NeedsCheck(record, pass, now)) {
            continue;
        }
        CheckOne(record);
        if (record.reportType_ == RUNNING_NORMAL_START) {
            Withdraw(record.appName_, App::EVENT_START_FAILED);
        }
        if (record.reportType_ == TERMINATED_NORMAL_EXIT ||
            record.reportType_ == TERMINATED_ABNORMAL_EXIT) {
            ended.push_back(record);
        }
        // Also one that has just become RUNNING has a transition code for the next pass to clear.
        if (NeedsCheck(record, CheckPass::PERIODIC, now)) {
            checks_.Request();
        }
    }
    return ended;
}

bool BaseServices::NeedsCheck(const Record& record, CheckPass pass, SteadyTime now) const {
    if (pass == CheckPass::EXTRA) {
        const bool isOld = isStopping_ || now - record.startTime_ > CHECK_PERIOD;
        return record.exitStatusSet_ && record.state_ != TERMINATED && isOld;
    }
    if (record.state_ == TERMINATED) {
        return IsRestartable(record) && !isStopping_;
    }
    // A service that is coming up to report itself, or going down, is moved by its word or its
    // exit.
    const bool isWaiting =
        record.state_ == TERMINATING || (record.state_ == STARTING && record.isReporting_);
    if (isWaiting && record.IsAlive()) {
        return false;
    }
    return !record.IsSettled();
}

void BaseServices::CheckOne(Record& record) {
    reportedState_.Update([&] {
        const ProcessState before = record.state_;
        record.state_ = record.CheckState();
        return record.state_ != before;
    });
}

// What ends with a service's process. A normal end, one that was asked for, is only reported.
void BaseServices::GiveUp(const App::AppInfo& app) const {
    if (app.reportType_ == TERMINATED_NORMAL_EXIT) {
        reports_.ReportAppStateToZorn(app, TERMINATED_NORMAL_EXIT, RESULT_NONE);
        EndHeartBeat(app.appName_);
        return;
    }
    LogSupervised(LOG_WARNING, DIED, app);
    reports_.ReportAppStateToZorn(app, TERMINATED_ABNORMAL_EXIT,
                                  app.exitedWith125_ ? RESULT_INPUT_OUTPUT_ERROR : RESULT_NONE);
    Raise(app, App::EVENT_START_FAILED);
    // Also that of one which has not promised to report: its successor must not attach to a pipe
    // that is about to be closed.
    if (app.isReporting_ || owners_.GetServiceFd(app.appName_) > 0) {
        owners_.UnRegServiceCallBack(app.appName_);
    }
    EndHeartBeat(app.appName_);
}

std::vector<App::AppInfo> BaseServices::RestartTerminated(const std::vector<App::AppInfo>& ended) {
    std::vector<App::AppInfo> restarted;
    if (ended.empty()) {
        return restarted;
    }
    const std::lock_guard lock(mutex_);
    for (const App::AppInfo& app : ended) {
        Record* record = Find(app.appName_);
        const bool isDue =
            record != nullptr && !isStopping_ && app.reportType_ == TERMINATED_ABNORMAL_EXIT;
        if (isDue && RestartByPolicy(*record)) {
            restarted.push_back(*record);
        }
    }
    checks_.Request();
    return restarted;
}

bool BaseServices::RestartByPolicy(Record& record) {
    if (!record.NeedRestart(std::chrono::steady_clock::now())) {
        LogSupervised(LOG_INFO, NOT_RESTARTED, record);
        return false;
    }
    LogSupervised(LOG_INFO, RESTARTS, record);
    if (!RestartBaseApp(record.appName_)) {
        LogSupervised(LOG_ERR, RESTART_FAILED, record);
        return false;
    }
    return true;
}

bool BaseServices::RestartBaseApp(const std::string& name) {
    Record* record = Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : Failed to find a process %s from executedBaseApp_",
                   name.c_str());
        return false;
    }
    if (record->state_ != TERMINATED) {
        ProcMgrLog(LOG_ERR, "PROCMGR : gonna restart process %s, but state=%s is not TERMINATED ",
                   name.c_str(), GetProcessStateStr(record->state_).c_str());
        return false;
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : Restarting process %s", name.c_str());
    if (!record->StartProcess(launcher_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Restarting process : %s failed ", name.c_str());
        return false;
    }
    if (record->isReporting_) {
        ProcMgrLog(LOG_INFO, "PROCMGR : Register check for %s, when Restarting.", name.c_str());
        RegisterHeartBeat(*record);
    } else {
        Withdraw(name, App::EVENT_START_FAILED);
    }
    return true;
}

// The channel of the new process, whether or not it has promised to report itself.
void BaseServices::Reconnect(const App::AppInfo& app) const {
    reports_.ReportAppStateToZorn(app, RUNNING_NORMAL_START, RESULT_NONE);
    if (!owners_.RegServiceCallBack(app.appName_, app.gid_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : procname=%s RegisterService failed", app.appName_.c_str());
        return;
    }
    LogSupervised(LOG_INFO, RESTARTED, app);
}

bool BaseServices::Announce(const Record& started) {
    const std::lock_guard order(reportOrder_);
    {
        const std::lock_guard lock(mutex_);
        const Record* record = Find(started.appName_);
        if (record == nullptr || record->pid_ != started.pid_ || record->state_ == TERMINATED) {
            return true;
        }
    }
    reports_.ReportAppStateToZorn(started, RUNNING_NORMAL_START, RESULT_NONE);
    if (started.isReporting_ && !owners_.RegServiceCallBack(started.appName_, started.gid_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : procname=%s RegisterService failed",
                   started.appName_.c_str());
        return false;
    }
    return true;
}

void BaseServices::RemoveTerminatedApps() {
    const std::lock_guard order(reportOrder_);
    std::vector<std::string> removed;
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(executedBaseApp_, [&](const Record& record) {
            if (record.state_ != TERMINATED || IsRestartable(record)) {
                return false;
            }
            ProcMgrLog(LOG_INFO, "PROCMGR : Process %s removed from the list of executedBaseApp_",
                       record.appName_.c_str());
            removed.push_back(record.appName_);
            return true;
        });
    }
    for (const std::string& name : removed) {
        if (owners_.GetServiceFd(name) > 0) {
            owners_.UnRegServiceCallBack(name);
        }
        EndHeartBeat(name);
    }
}

void BaseServices::RegisterHeartBeat(const std::string& name) {
    const std::lock_guard lock(mutex_);
    // One that has died meanwhile is supervision's, which ends or renews the watch.
    const Record* record = Find(name);
    if (record != nullptr && record->IsAlive()) {
        RegisterHeartBeat(*record);
    }
}

void BaseServices::RegisterHeartBeat(const Record& record) {
    const std::string& name = record.appName_;
    const int ret = RegisterCheckHeartBeat(
        name.c_str(), name.size(), record.pid_,
        [this](const char* app, size_t length, int32_t pid, uint32_t status) {
            return HeartBeatNotify(app, length, pid, status);
        });
    if (ret != 0) {
        ProcMgrLog(LOG_ERR, "Register heart beat for %s failed. (ret=%d)", name.c_str(), ret);
    }
}

int BaseServices::HeartBeatNotify(const char* name, size_t nameLength, int32_t pid,
                                  uint32_t status) {
    if (name == nullptr || nameLength == 0) {
        ProcMgrLog(LOG_ERR, "Process heart beat notify, app name is invalid. (nameLen=%zu)",
                   nameLength);
        return 0;
    }
    const std::string app(name, nameLength);
    // Held to the end: a fault that is raised here is withdrawn when the record leaves the list.
    const std::lock_guard lock(mutex_);
    const Record* record = Find(app);
    if (record == nullptr) {
        ProcMgrLog(LOG_ERR, "Process heart beat notify, not find base app=%s", app.c_str());
        return 0;
    }
    switch (status) {
        case HEARTBEAT_LOST:
            ProcMgrLog(LOG_INFO, "Process heart beat notify. (app=%s,pid=%d,status=lost)",
                       app.c_str(), pid);
            // Not for a process that has ended meanwhile: its watch, and the fault, ended with it.
            if (record->IsAlive() && record->pid_ == pid) {
                Raise(*record, App::EVENT_HEARTBEAT_LOST);
            }
            return 1;
        case HEARTBEAT_BACK:
            ProcMgrLog(LOG_INFO, "Process heart beat notify. (app=%s,pid=%d,status=recovery)",
                       app.c_str(), pid);
            Withdraw(app, App::EVENT_HEARTBEAT_LOST);
            return 1;
        default:
            ProcMgrLog(LOG_WARNING, "App status is invalid. (status=%u)", status);
            return 0;
    }
}

}  // namespace ProcMgr
