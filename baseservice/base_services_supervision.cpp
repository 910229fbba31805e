// What CheckThread and the heartbeat library do with the base services.
#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "app/sensor_node_event_reporter.h"
#include "baseservice/base_services.h"
#include "main/common/log.h"
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
    MayWait("the heartbeat library");
    UnregisterCheckHeartBeat(name.c_str(), name.size());
    Withdraw(name, App::EVENT_HEARTBEAT_LOST);
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
               GetProcessStateStr(app.GetState()).c_str());
}

}  // namespace

// Gives a record to supervision again when its launch does not come about, whatever the reason.
class BaseServices::LaunchGuard {
public:
    LaunchGuard(BaseServices& services, const std::string& name)
        : services_(services), name_(name) {}
    ~LaunchGuard() {
        if (isArmed_) {
            services_.EndLaunch(name_);
        }
    }
    LaunchGuard(const LaunchGuard&) = delete;
    LaunchGuard& operator=(const LaunchGuard&) = delete;

    // Another thread goes on with the launch.
    void HandOn() { isArmed_ = false; }

private:
    BaseServices& services_;
    const std::string& name_;
    bool isArmed_ = true;
};

void BaseServices::CheckBaseApps(CheckPass pass) {
    size_t index = 0;
    while (const std::optional<Record> ended = CheckNext(pass, index)) {
        LaunchGuard guard(*this, ended->appName_);
        GiveUp(*ended);
        if (ended->reportType_ == TERMINATED_ABNORMAL_EXIT) {
            RestartByPolicy(ended->appName_, guard);
        }
    }
}

// Only this thread takes records out of the list, so an index stays what it is.
std::optional<BaseServices::Record> BaseServices::CheckNext(CheckPass pass, size_t& index) {
    const LockGuard lock(mutex_);
    const SteadyTime now = std::chrono::steady_clock::now();
    while (index < executedBaseApp_.size()) {
        Record& record = executedBaseApp_[index++];
        if (!NeedsCheck(record, pass, now)) {
            continue;
        }
        // The copy comes first: once the state has changed the end must be dealt with.
        std::optional<Record> copy = record;
        CheckOne(record);
        if (record.GetState() == TERMINATED) {
            copy->TakeCheckResult(record);
            NoteEnd(record);
            return copy;
        }
        // A record that has just become RUNNING has a transition code for the next pass to clear.
        if (NeedsCheck(record, CheckPass::PERIODIC, now)) {
            checks_.Request();
        }
    }
    return std::nullopt;
}

bool BaseServices::NeedsCheck(const Record& record, CheckPass pass, SteadyTime now) const {
    if (record.isLaunching_) {
        return false;
    }
    if (pass == CheckPass::EXTRA) {
        const bool isOld = isStopping_ || now - record.startTime_ > CHECK_PERIOD;
        return record.exitStatusSet_ && record.GetState() != TERMINATED && isOld;
    }
    if (record.GetState() == TERMINATED) {
        return record.IsRestartable() && !isStopping_;
    }
    // A service that is coming up to report itself, or going down, is moved by its report or its
    // exit.
    const bool isWaiting =
        record.GetState() == TERMINATING || (record.GetState() == STARTING && record.isReporting_);
    if (isWaiting && record.IsAlive()) {
        return false;
    }
    return !record.IsSettled();
}

// From the end of a process on, the record is being launched until it is decided that it is not:
// nobody sees it TERMINATED before its restart.
void BaseServices::CheckOne(Record& record) {
    reportedState_.Update([&] {
        const ProcessState before = record.GetState();
        const ProcessState now = record.CheckState();
        const bool hasDied = now == TERMINATED && record.reportType_ == TERMINATED_ABNORMAL_EXIT;
        record.isLaunching_ = hasDied && !isStopping_;
        return now != before;
    });
    if (record.reportType_ == RUNNING_NORMAL_START) {
        Withdraw(record.appName_, App::EVENT_START_FAILED);
    }
}

void BaseServices::NoteEnd(Record& record) try {
    checks_.Request();
    if (record.reportType_ == TERMINATED_NORMAL_EXIT) {
        reports_.ReportAppStateToZorn(record, TERMINATED_NORMAL_EXIT, RESULT_NONE);
        return;
    }
    LogSupervised(LOG_WARNING, DIED, record);
    reports_.ReportAppStateToZorn(record, TERMINATED_ABNORMAL_EXIT,
                                  record.exitedWith125_ ? RESULT_INPUT_OUTPUT_ERROR : RESULT_NONE);
    Raise(record, App::EVENT_START_FAILED);
} catch (const std::bad_alloc&) {
    // The next pass deals with the end once more.
    record.isLaunching_ = false;
    throw;
}

// What ends with a service's process. A service that has not promised to report may have a pipe,
// too: its next process must not attach to a pipe that is about to be closed.
void BaseServices::GiveUp(const Record& record) {
    reports_.Flush();
    const bool hasDied = record.reportType_ == TERMINATED_ABNORMAL_EXIT;
    if (hasDied && (record.isReporting_ || owners_.GetServiceFd(record.appName_) > 0)) {
        owners_.UnRegServiceCallBack(record.appName_);
    }
    EndHeartBeat(record.appName_);
}

void BaseServices::RestartByPolicy(const std::string& name, LaunchGuard& guard) {
    const std::optional<Record> copy = DecideRestart(name);
    if (!copy) {
        return;
    }
    if (launcher_.IsQuick(*copy)) {
        PrepareAndFinish(*copy);
        return;
    }
    const auto job = [this, copy] {
        const LaunchGuard jobGuard(*this, copy->appName_);
        PrepareAndFinish(*copy);
    };
    if (launcher_.PostSlow(job)) {
        guard.HandOn();
    } else {
        LogSupervised(LOG_ERR, RESTART_FAILED, *copy);
    }
}

// Logs the decision. A copy of the record when it is to be restarted.
std::optional<BaseServices::Record> BaseServices::DecideRestart(const std::string& name) {
    const LockGuard lock(mutex_);
    Record* record = Find(name);
    if (record == nullptr || isStopping_) {
        return std::nullopt;
    }
    if (!record->NeedRestart(std::chrono::steady_clock::now())) {
        LogSupervised(LOG_INFO, NOT_RESTARTED, *record);
        return std::nullopt;
    }
    LogSupervised(LOG_INFO, RESTARTS, *record);
    ProcMgrLog(LOG_INFO, "PROCMGR : Restarting process %s", name.c_str());
    return *record;
}

void BaseServices::PrepareAndFinish(const Record& copy) {
    std::optional<App::LaunchPlan> plan = launcher_.Prepare(copy);
    Record started = copy;
    {
        const LockGuard lock(mutex_);
        Record* record = Find(copy.appName_);
        if (record == nullptr || isStopping_ || !RestartBaseApp(copy.appName_, std::move(plan))) {
            return;
        }
        started.TakeProcess(*record);
    }
    // Whoever depends on the service may go on.
    reportedState_.Notify();
    Reconnect(started);
}

bool BaseServices::RestartBaseApp(const std::string& name, std::optional<App::LaunchPlan> plan) {
    Record* record = Find(name);
    if (record == nullptr) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : Failed to find a process %s from executedBaseApp_",
                   name.c_str());
        return false;
    }
    if (record->GetState() != TERMINATED) {
        ProcMgrLog(LOG_ERR, "PROCMGR : gonna restart process %s, but state=%s is not TERMINATED ",
                   name.c_str(), GetProcessStateStr(record->GetState()).c_str());
        return false;
    }
    if (!plan || !record->StartProcess(launcher_, *plan)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Restarting process : %s failed ", name.c_str());
        LogSupervised(LOG_ERR, RESTART_FAILED, *record);
        return false;
    }
    if (!record->isReporting_) {
        Withdraw(name, App::EVENT_START_FAILED);
    }
    reports_.ReportAppStateToZorn(*record, RUNNING_NORMAL_START, RESULT_NONE);
    return true;
}

// The channel of the new process, whether or not it has promised to report itself.
void BaseServices::Reconnect(const Record& record) {
    reports_.Flush();
    if (record.isReporting_) {
        ProcMgrLog(LOG_INFO, "PROCMGR : Register check for %s, when Restarting.",
                   record.appName_.c_str());
        RegisterHeartBeat(record);
    }
    if (!owners_.RegServiceCallBack(record.appName_, record.gid_, record.pid_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : procname=%s RegisterService failed",
                   record.appName_.c_str());
        return;
    }
    LogSupervised(LOG_INFO, RESTARTED, record);
}

bool BaseServices::Announce(const Record& started) {
    const std::string& name = started.appName_;
    const LaunchGuard guard(*this, name);
    bool hasPipe = true;
    if (started.isReporting_) {
        hasPipe = owners_.RegServiceCallBack(name, started.gid_, started.pid_);
        if (hasPipe) {
            ProcMgrLog(LOG_INFO, "Register heart beat checker for %s.", name.c_str());
            RegisterHeartBeat(started);
        } else {
            ProcMgrLog(LOG_ERR, "PROCMGR : procname=%s RegisterService failed", name.c_str());
        }
    }
    return hasPipe;
}

// What has happened to the record meanwhile is for the next pass.
void BaseServices::EndLaunch(const std::string& name) {
    {
        const LockGuard lock(mutex_);
        Record* record = Find(name);
        if (record != nullptr) {
            record->isLaunching_ = false;
        }
    }
    checks_.Request();
    reportedState_.Notify();
}

void BaseServices::RemoveTerminatedApps() {
    std::vector<std::string> removed;
    {
        const LockGuard lock(mutex_);
        std::erase_if(executedBaseApp_, [&](const Record& record) {
            if (record.GetState() != TERMINATED || record.isLaunching_ || record.IsRestartable()) {
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

void BaseServices::RegisterHeartBeat(const Record& record) {
    MayWait("the heartbeat library");
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
    const LockGuard lock(mutex_);
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
