// The supervision of the base services by check passes: state checks, the handling of services
// that have died, restarts, the end of launches, and the removal of records.
#include <algorithm>
#include <chrono>
#include <exception>
#include <new>
#include <utility>

#include "baseservice/base_services.h"
#include "main/common/log.h"

namespace ProcMgr {
namespace {

// The result field of a report to the access manager.
constexpr uint32_t RESULT_NONE = 0;
constexpr uint32_t RESULT_INPUT_OUTPUT_ERROR = 1;

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

// Ends the launch of a record at the end of its scope, however the scope is left.
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

    // Leaves the end of the launch to the guard of another thread.
    void Disarm() { isArmed_ = false; }

private:
    BaseServices& services_;
    const std::string& name_;
    bool isArmed_ = true;
};

// Raises the fault of a service that has died, at the end of its scope at the latest, also when the
// preparation of the restart takes long. When the service is restarted at once, the fault is left
// to Complete(): raising it wakes the device worker, which would preempt the new process.
class BaseServices::StartFault {
public:
    StartFault(BaseServices& services, std::string name, uint32_t nodeType, bool isRaised = false)
        : services_(services), name_(std::move(name)), nodeType_(nodeType), isRaised_(isRaised) {}
    ~StartFault() { Raise(); }
    StartFault(const StartFault&) = delete;
    StartFault& operator=(const StartFault&) = delete;

    // Leaves the fault to the caller. False when it has been raised.
    bool Release() { return !std::exchange(isRaised_, true); }

    // Any lock may be held. Does nothing when the fault has been raised or released.
    void Raise() {
        if (std::exchange(isRaised_, true)) {
            return;
        }
        try {
            services_.faults_.Raise(App::BASE_SERVICE_NODE, name_, App::EVENT_START_FAILED,
                                    nodeType_);
        } catch (const std::exception& error) {
            ProcMgrLog(LOG_ERR, "PROCMGR : the fault of app=%s is not raised, %s", name_.c_str(),
                       error.what());
        }
    }

private:
    BaseServices& services_;
    const std::string name_;
    const uint32_t nodeType_;
    bool isRaised_;
};

void BaseServices::CheckBaseApps(CheckPass pass) {
    const std::vector<Record*> due = BeginPass(pass);
    size_t index = 0;
    while (const std::optional<Ended> ended = CheckNext(pass, due, index)) {
        LaunchGuard guard(*this, ended->name);
        if (!ended->hasDied) {
            ReleaseEnded(*ended);
            continue;
        }
        StartFault fault(*this, ended->name, ended->nodeType);
        if (ended->isReporting) {
            // Before the end of the heartbeat watch withdraws the fault of the lost heartbeat.
            fault.Raise();
        }
        ReleaseEnded(*ended);
        RestartByPolicy(ended->name, guard, fault);
    }
}

std::vector<BaseServices::Record*> BaseServices::BeginPass(CheckPass pass) {
    const LockGuard lock(mutex_);
    return executedBaseApp_.BeginPass(pass);
}

std::optional<BaseServices::Ended> BaseServices::CheckNext(CheckPass pass,
                                                           const std::vector<Record*>& due,
                                                           size_t& index) {
    const LockGuard lock(mutex_);
    const SteadyTime now = std::chrono::steady_clock::now();
    while (index < due.size()) {
        Record& record = *due[index++];
        if (!NeedsCheck(record, pass, now)) {
            continue;
        }
        // Made before the state changes: when the copy fails, the next pass finds the exit.
        Ended ended{record.appName_, record.nodeType_, record.isReporting_};
        CheckOne(record);
        if (record.GetState() == TERMINATED) {
            ended.hasDied = record.reportType_ == TERMINATED_ABNORMAL_EXIT;
            ReportEnd(record);
            return ended;
        }
        // The pass requested here resets reportType_ of a record that has just become RUNNING.
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
    // A service that is TERMINATING, or STARTING and has promised to report, changes its state only
    // by its own report or by its exit.
    const bool isWaiting =
        record.GetState() == TERMINATING || (record.GetState() == STARTING && record.isReporting_);
    if (isWaiting && record.IsAlive()) {
        return false;
    }
    return !record.IsSettled();
}

// A service that has died is marked as being launched together with its change to TERMINATED, until
// its restart has been decided: no other thread sees it as TERMINATED in between.
void BaseServices::CheckOne(Record& record) {
    const ProcessState before = record.GetState();
    const ProcessState now = record.CheckState();
    const bool hasDied = now == TERMINATED && record.reportType_ == TERMINATED_ABNORMAL_EXIT;
    record.isLaunching_ = hasDied && !isStopping_;
    if (now != before) {
        reportedState_.Notify();
    }
    if (record.reportType_ == RUNNING_NORMAL_START) {
        WithdrawFault(record.appName_, App::EVENT_START_FAILED);
    }
}

void BaseServices::ReportEnd(Record& record) try {
    if (record.reportType_ == TERMINATED_NORMAL_EXIT) {
        checks_.Request();
        reports_.ReportAppStateToZorn(record, TERMINATED_NORMAL_EXIT, RESULT_NONE);
        return;
    }
    // The restart follows at once, and only what it leaves to do is for a later pass.
    checks_.RequestLater();
    LogSupervised(LOG_WARNING, DIED, record);
    reports_.ReportAppStateToZorn(record, TERMINATED_ABNORMAL_EXIT,
                                  record.exitedWith125_ ? RESULT_INPUT_OUTPUT_ERROR : RESULT_NONE);
} catch (const std::bad_alloc&) {
    // isLaunching_ is reset, so that the next pass checks the record again and repeats the report.
    record.isLaunching_ = false;
    throw;
}

// Closes the pipe and ends the heartbeat watch of a process that has ended. A service that has not
// promised to report may have a pipe, too; it is closed before the restart, so that the next
// process does not attach to it.
void BaseServices::ReleaseEnded(const Ended& ended) {
    reports_.Flush();
    if (ended.hasDied && (ended.isReporting || owners_.GetServiceFd(ended.name) > 0)) {
        owners_.UnRegServiceCallBack(ended.name);
    }
    EndHeartBeat(ended.name);
}

void BaseServices::RestartByPolicy(const std::string& name, LaunchGuard& guard, StartFault& fault) {
    const std::optional<Record> copy = DecideRestart(name);
    if (!copy) {
        return;
    }
    if (launcher_.IsQuick(*copy)) {
        PrepareAndRestart(*copy, guard, fault);
        return;
    }
    fault.Raise();
    const auto job = [this, copy] {
        LaunchGuard jobGuard(*this, copy->appName_);
        StartFault raised(*this, copy->appName_, copy->nodeType_, true);
        PrepareAndRestart(*copy, jobGuard, raised);
    };
    if (launcher_.PostSlow(job)) {
        guard.Disarm();
    } else {
        LogSupervised(LOG_ERR, RESTART_FAILED, *copy);
    }
}

std::optional<BaseServices::Record> BaseServices::DecideRestart(const std::string& name) {
    const LockGuard lock(mutex_);
    Record* record = executedBaseApp_.Find(name);
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

void BaseServices::PrepareAndRestart(const Record& copy, LaunchGuard& guard, StartFault& fault) {
    std::optional<App::LaunchPlan> plan = launcher_.Prepare(copy);
    {
        const LockGuard lock(mutex_);
        if (isStopping_ || !RestartBaseApp(copy.appName_, std::move(plan), fault)) {
            return;
        }
        guard.Disarm();
    }
    checks_.RequestCompletion();
    // Base start-up may be waiting for this service, because another one depends on it.
    reportedState_.Notify();
}

bool BaseServices::RestartBaseApp(const std::string& name, std::optional<App::LaunchPlan> plan,
                                  StartFault& fault) {
    Record* record = executedBaseApp_.Find(name);
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
    // Before the fork, because it may fail.
    if (restarted_.size() == restarted_.capacity()) {
        restarted_.reserve(2 * restarted_.size() + 1);
    }
    if (!plan || !StartProcess(*record, *plan)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Restarting process : %s failed ", name.c_str());
        LogSupervised(LOG_ERR, RESTART_FAILED, *record);
        return false;
    }
    reports_.ReportAppStateToZorn(*record, RUNNING_NORMAL_START, RESULT_NONE);
    // Last: the record must not be in the list when an exception ends its launch.
    restarted_.push_back({record, fault.Release()});
    return true;
}

void BaseServices::Complete() {
    for (const auto& [record, hasFault] : TakeRestarted()) {
        const LaunchGuard guard(*this, record->appName_);
        try {
            const Record copy = CopyOf(*record);
            ShowRestart(copy, hasFault);
            if (copy.IsAlive()) {
                Reconnect(copy);
            } else {
                // The pid may belong to another process by now, which must not get the pipe.
                reports_.Flush();
                LogSupervised(LOG_INFO, RESTARTED, copy);
            }
        } catch (const std::exception& error) {
            ProcMgrLog(LOG_ERR, "PROCMGR : the pipe of app=%s cannot be opened, %s",
                       record->appName_.c_str(), error.what());
        }
    }
}

void BaseServices::ShowRestart(const Record& record, bool hasFault) {
    StartFault(*this, record.appName_, record.nodeType_, !hasFault).Raise();
    if (!record.isReporting_) {
        WithdrawFault(record.appName_, App::EVENT_START_FAILED);
    }
}

std::vector<BaseServices::Restarted> BaseServices::TakeRestarted() {
    const LockGuard lock(mutex_);
    return std::exchange(restarted_, {});
}

BaseServices::Record BaseServices::CopyOf(const Record& record) {
    const LockGuard lock(mutex_);
    return record;
}

// Opens the pipe of the new process, whether or not the service has promised to report.
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

// The pass that is requested here finds everything that has happened to the record meanwhile.
void BaseServices::EndLaunch(const std::string& name) {
    {
        const LockGuard lock(mutex_);
        Record* record = executedBaseApp_.Find(name);
        if (record != nullptr) {
            record->isLaunching_ = false;
            executedBaseApp_.AddDue(*record);
        }
    }
    checks_.Request();
    reportedState_.Notify();
}

bool BaseServices::IsRemovable(const Record& record) {
    return record.GetState() == TERMINATED && !record.isLaunching_ && !record.IsRestartable();
}

std::vector<std::string> BaseServices::RemoveFromList(CheckPass pass) {
    const LockGuard lock(mutex_);
    const SteadyTime now = std::chrono::steady_clock::now();
    std::vector<std::string> removed;
    std::vector<Record*> due;
    for (Record* record : executedBaseApp_.GetPassed(pass)) {
        if (IsRemovable(*record)) {
            removed.push_back(record->appName_);
        } else if (NeedsCheck(*record, CheckPass::PERIODIC, now)) {
            due.push_back(record);
        }
    }
    if (pass == CheckPass::PERIODIC) {
        executedBaseApp_.KeepDue(due);
    }
    for (const std::string& name : removed) {
        ProcMgrLog(LOG_INFO, "PROCMGR : Process %s removed from the list of executedBaseApp_",
                   name.c_str());
        executedBaseApp_.Remove(name);
    }
    return removed;
}

void BaseServices::RemoveTerminatedApps(CheckPass pass) {
    for (const std::string& name : RemoveFromList(pass)) {
        if (owners_.GetServiceFd(name) > 0) {
            owners_.UnRegServiceCallBack(name);
        }
        EndHeartBeat(name);
    }
}

}  // namespace ProcMgr
