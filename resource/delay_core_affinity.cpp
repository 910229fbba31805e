#include "resource/delay_core_affinity.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <set>
#include <vector>

#include "main/common/boot_trace.h"
#include "main/common/log.h"
#include "main/common/proc_files.h"
#include "main/common/proc_mgr_env.h"
#include "main/common/threads.h"
#include "resource/cgroup_paths.h"
#include "resource/cpuset_file.h"

namespace ProcMgr {

using Message::DELAY_BUSY;
using Message::DELAY_FAILED;
using Message::DELAY_OK;
using Message::DelayCoreAffinityReq;

namespace {

constexpr uint32_t INTERVAL_MIN = 100;  // milliseconds
constexpr uint32_t INTERVAL_MAX = 60000;
constexpr uint32_t INTERVAL_DEFAULT = 1000;
constexpr int CHECKS_MIN = -1;  // no limit
constexpr int CHECKS_MAX = 100;
constexpr int CHECKS_DEFAULT = 3;
constexpr int COUNT_MAX = 127;

// Replaces values that are out of range by their defaults.
void MakeValid(DelayCoreAffinityReq& request) {
    if (request.checkInterval < INTERVAL_MIN || request.checkInterval > INTERVAL_MAX) {
        ProcMgrSysLog(LOG_ERR,
                      "SetDelayCoreAffinity checkInterval=%u not valid,use default value 1000",
                      request.checkInterval);
        request.checkInterval = INTERVAL_DEFAULT;
    }
    if (request.checkNum < CHECKS_MIN || request.checkNum > CHECKS_MAX) {
        ProcMgrSysLog(LOG_ERR,
                      "SetDelayCoreAffinity config checkNum=%d not valid,use default value 3",
                      request.checkNum);
        request.checkNum = CHECKS_DEFAULT;
    }
}

}  // namespace

uint32_t DelayCoreAffinity::SetDelayCoreAffinity(const DelayCoreAffinityReq& request) {
    uint32_t ret = DELAY_FAILED;
    if (request.state == Message::DELAY_BIND) {
        ret = Bind(request);
    } else if (request.state == Message::DELAY_RESET) {
        ret = Reset();
    }
    ProcMgrSysLog(LOG_INFO,
                  "SetDelayCoreAffinity state=%u, cfg checkInterval=%u, checkNum=%d, "
                  "isWakeUpEnable=%d, ret=%d",
                  static_cast<unsigned>(request.state), request.checkInterval, request.checkNum,
                  request.isWakeUpEnable, static_cast<int>(ret));
    return ret;
}

uint32_t DelayCoreAffinity::Reset() {
    const LockGuard lock(mutex_);
    if (delayState_ == BOUND) {
        ProcMgrSysLog(LOG_INFO, "SetDelayCoreAffinity return busy, not finish last check task");
        return DELAY_BUSY;
    }
    delayState_ = IDLE;
    return DELAY_OK;
}

uint32_t DelayCoreAffinity::Bind(const DelayCoreAffinityReq& request) {
    const std::optional<uint64_t> bind = Accept();
    if (!bind) {
        ProcMgrSysLog(LOG_INFO,
                      "SetDelayCoreAffinity return directly as has recieved core affinity req "
                      "before, will not update config or bind core");
        return DELAY_OK;
    }
    try {
        const std::string begin = BootStrace(BOOT_TRACE_TAG);
        const uint32_t ret = BindAll(*bind);
        const std::string end = BootStrace(BOOT_TRACE_TAG);
        ProcMgrSysLog(LOG_INFO, "SetDelayCoreAffinity beginTime=%s, endTime=%s", begin.c_str(),
                      end.c_str());
        StoreRequest(request, *bind);
        return ret == AFFINITY_OK ? DELAY_OK : DELAY_FAILED;
    } catch (const std::exception& error) {
        // There was no memory, or no thread could be started: the owner may ask for the bind again.
        ProcMgrSysLog(LOG_ERR, "PROCMGR : the bind of delayed applications failed, %s",
                      error.what());
        const LockGuard lock(mutex_);
        if (binds_ == *bind) {
            delayState_ = IDLE;
        }
        return DELAY_FAILED;
    }
}

std::optional<uint64_t> DelayCoreAffinity::Accept() {
    const LockGuard lock(mutex_);
    if (delayState_ != IDLE) {
        return std::nullopt;
    }
    delayState_ = BOUND;
    isPending_ = false;  // a request that a wake-up ended before the worker took it is dropped
    return ++binds_;
}

void DelayCoreAffinity::StoreRequest(const DelayCoreAffinityReq& request, uint64_t bind) {
    const LockGuard lock(mutex_);
    if (binds_ != bind) {
        return;  // a wake-up has ended this bind, and a newer one has been accepted
    }
    request_ = request;
    MakeValid(request_);
    isPending_ = true;
    changed_.NotifyAll();
    if (!worker_.joinable() && !isStopped_) {
        worker_ = StartThread("delay-bind", [this] { CheckCoreAffinityThread(); });
    }
}

std::vector<ManagedApp> DelayCoreAffinity::ListDelayed() {
    std::vector<ManagedApp> apps = apps_.GetManagedApps(ManagedFilter::DELAYED);
    // Raised after the listing: a listed child that has not come to its own pinning either finds
    // the count raised and pins itself, or has changed its cores before this pass pins it.
    bindCount_.Raise();
    return apps;
}

uint32_t DelayCoreAffinity::BindAll(uint64_t bind) {
    uint32_t result = AFFINITY_OK;
    for (const ManagedApp& app : ListDelayed()) {
        const LockGuard pass(passMutex_);
        if (!IsCurrent(bind)) {
            break;
        }
        const uint32_t ret = BindCoreForDelayApp(app);
        result = result == AFFINITY_OK ? ret : result;
    }
    return result;
}

uint32_t DelayCoreAffinity::Pin(const ManagedApp& app, int32_t tid, std::string& error) {
    std::string reason;
    const uint32_t ret = affinity_.StoreAndSetCoreAffinity(app.pid, tid, app.cores, reason);
    if (ret == AFFINITY_OK) {
        return ret;
    }
    if (access(ThreadPath(app.pid, tid).c_str(), F_OK) != 0) {
        return AFFINITY_OK;  // the thread has ended
    }
    error += reason;
    return ret;
}

uint32_t DelayCoreAffinity::BindCoreForDelayApp(const ManagedApp& app) {
    if (!apps_.IsPresent(app)) {
        return AFFINITY_OK;
    }
    std::string error;
    uint32_t result = Pin(app, app.pid, error);
    std::set<int32_t> tids;
    // The process is looked for after its threads were listed: otherwise they might be threads of a
    // later process with the same pid.
    if (CoreAffinityMgr::GetTids(app.pid, tids) && apps_.IsPresent(app)) {
        affinity_.Prune(app.pid, tids);
        tids.erase(app.pid);
        for (const int32_t tid : tids) {
            const uint32_t ret = Pin(app, tid, error);
            result = result == AFFINITY_OK ? ret : result;
        }
    }
    if (!error.empty()) {
        ProcMgrSysLog(LOG_WARNING, "PROCMGR : BindCoreForDelayApp failed err=%s", error.c_str());
    }
    return result;
}

bool DelayCoreAffinity::CheckMissingTids(const ManagedApp& app) {
    std::set<int32_t> tids;
    if (!apps_.IsPresent(app) || !CoreAffinityMgr::GetTids(app.pid, tids) ||
        !apps_.IsPresent(app)) {
        return true;
    }
    affinity_.Prune(app.pid, tids);
    bool isComplete = true;
    for (const int32_t tid : tids) {
        std::string error;
        if (!affinity_.IsPinned(tid, app.cores) && Pin(app, tid, error) != AFFINITY_OK) {
            isComplete = false;
            ProcMgrSysLog(LOG_WARNING,
                          "PROCMGR : CheckMissingTids SetCoreAffinityToOs failed err=%s",
                          error.c_str());
        }
    }
    return isComplete;
}

bool DelayCoreAffinity::CheckAll(uint64_t bind) {
    bool isComplete = true;
    try {
        for (const ManagedApp& app : ListDelayed()) {
            const LockGuard pass(passMutex_);
            if (!IsCurrent(bind)) {
                return false;
            }
            isComplete = CheckMissingTids(app) && isComplete;
        }
    } catch (const std::exception& error) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: CheckCoreAffinityThread check failed, %s", error.what());
        return false;
    }
    return isComplete;
}

void DelayCoreAffinity::CheckCoreAffinityThread() {
    UniqueLock lock(mutex_);
    for (;;) {
        changed_.Wait(lock, [this]() PROCMGR_REQUIRES(mutex_) {
            return isStopped_ || (isPending_ && delayState_ == BOUND);
        });
        if (isStopped_) {
            break;
        }
        isPending_ = false;
        const DelayCoreAffinityReq request = request_;
        const uint64_t bind = binds_;
        lock.Unlock();
        Recheck(request, bind);
        lock.Lock();
    }
    lock.Unlock();
    ProcMgrSysLog(LOG_INFO, "PROCMGR: CheckCoreAffinityThread exit now.");
}

void DelayCoreAffinity::Recheck(const DelayCoreAffinityReq& request, uint64_t bind) {
    ProcMgrSysLog(LOG_INFO,
                  "CheckCoreAffinityThread wakeup,checkInterval=%u,checkNum=%d,isWakeUpEnable=%d",
                  request.checkInterval, request.checkNum, request.isWakeUpEnable);
    CheckAll(bind);
    int count = 0;
    bool isOk = false;
    while (count != request.checkNum && !isOk && IsCurrent(bind)) {
        if (isSuspended_) {
            ProcMgrSysLog(LOG_INFO, "CheckCoreAffinityThread suspend");
            break;
        }
        isOk = CheckAll(bind);
        count = std::min(count + 1, COUNT_MAX);
        WaitFor(std::chrono::milliseconds(request.checkInterval), bind);
    }
    Finish(bind);
    ProcMgrSysLog(LOG_INFO,
                  "CheckCoreAffinityThread finish check %d times,check interval %u "
                  "ms,coreAffinityOk=%d, isWakeUpEnable=%d",
                  count, request.checkInterval, isOk, request.isWakeUpEnable);
}

bool DelayCoreAffinity::IsCurrent(uint64_t bind) {
    const LockGuard lock(mutex_);
    return !isStopped_ && delayState_ == BOUND && binds_ == bind;
}

void DelayCoreAffinity::WaitFor(std::chrono::milliseconds interval, uint64_t bind) {
    UniqueLock lock(mutex_);
    changed_.WaitUntil(
        lock, std::chrono::steady_clock::now() + interval, [&]() PROCMGR_REQUIRES(mutex_) {
            return isStopped_ || isSuspended_ || delayState_ != BOUND || binds_ != bind;
        });
}

// When a wake-up has ended this bind, the state belongs to the wake-up or to a newer bind.
void DelayCoreAffinity::Finish(uint64_t bind) {
    const LockGuard lock(mutex_);
    if (delayState_ == BOUND && binds_ == bind) {
        delayState_ = FINISHED;
    }
}

void DelayCoreAffinity::Suspend() {
    const LockGuard lock(mutex_);
    isSuspended_ = true;
    changed_.NotifyAll();
}

bool DelayCoreAffinity::EndBind() {
    const LockGuard lock(mutex_);
    const bool isEnabled = request_.isWakeUpEnable == 1;
    delayState_ = isEnabled ? IDLE : FINISHED;
    isPending_ = false;
    ProcMgrSysLog(LOG_INFO, "WakeUpRecover wakeUpDelayCoreAffinity=%d", isEnabled);
    isSuspended_ = false;
    changed_.NotifyAll();
    return isEnabled;
}

void DelayCoreAffinity::WakeUpRecover() {
    const bool isReset = EndBind();
    // A pass that still runs for the ended bind finds out before it pins the next application.
    const LockGuard pass(passMutex_);
    cgroups_.EnableDefaultCpuSet();
    PinDaemon();
    if (affinity_.WakeUpRecover(PrepareRecovery(isReset))) {
        ProcMgrSysLog(LOG_INFO, "WakeUpRecover success");
    } else {
        ProcMgrSysLog(LOG_ERR, "WakeUpRecover failed");
    }
}

void DelayCoreAffinity::PinDaemon() {
    std::string error;
    if (affinity_.SetCoreAffinity(ProcMgrEnv::GetInstance().GetPid(), {}, error) != AFFINITY_OK) {
        ProcMgrSysLog(LOG_WARNING, "WakeUpRecover pm SetCoreAffinityToOs failed, err=%s",
                      error.c_str());
    }
}

std::vector<int32_t> DelayCoreAffinity::PrepareRecovery(bool isReset) {
    std::vector<int32_t> pids;
    uint32_t ret = AFFINITY_OK;
    for (const ManagedApp& app : apps_.GetManagedApps(ManagedFilter::ALL)) {
        if (!apps_.IsPresent(app)) {
            continue;
        }
        if (app.isDelayed && isReset) {
            ret = std::max(ret, ResetToCpuset(app));
            continue;
        }
        // The child of any other application has pinned itself; a delayed one may not be bound yet.
        if (!app.isDelayed || affinity_.IsStored(app.pid, app.pid)) {
            affinity_.StoreStrays(app.pid, app.cores);
        }
        pids.push_back(app.pid);
    }
    if (isReset) {
        ProcMgrSysLog(LOG_INFO, "Reset Core Affinity to CpuSet for delay apps, ret=%d",
                      static_cast<int>(ret));
    }
    return pids;
}

uint32_t DelayCoreAffinity::ResetToCpuset(const ManagedApp& app) {
    affinity_.RecycleThreadCoreInfo(app.pid, app.name);
    const std::string cpuset = CgroupMgr::IsUsableGroup(app.cpuset) ? app.cpuset : DEFAULT_CPUSET;
    // Cores of this cpuset may be cores for accelerator work too; the threads must stay in this
    // cpuset nevertheless.
    std::optional<CoreMask> mask =
        affinity_.MakeMask(ReadCpusetFile(CGROUP_CPUSET_ROOT + cpuset + CPUSET_CPUS));
    if (mask) {
        mask->aiCores = 0;
    }
    std::set<int32_t> tids;
    if (!CoreAffinityMgr::GetTids(app.pid, tids) || !apps_.IsPresent(app)) {
        return AFFINITY_OK;
    }
    uint32_t result = AFFINITY_OK;
    std::string error;
    for (const int32_t tid : tids) {
        cgroups_.AddToCgroups({app.name, tid, "", cpuset, "", {}}, error);
        result = std::max(result, CoreAffinityMgr::ApplyMask(tid, mask, error));
    }
    if (!error.empty()) {
        ProcMgrSysLog(LOG_WARNING, "PROCMGR : reset of core affinity, app=%s failed err=%s",
                      app.name.c_str(), error.c_str());
    }
    return result;
}

void DelayCoreAffinity::Stop() {
    std::thread worker;
    {
        const LockGuard lock(mutex_);
        isStopped_ = true;
        changed_.NotifyAll();
        worker.swap(worker_);
    }
    if (worker.joinable()) {
        worker.join();
    }
}

}  // namespace ProcMgr
