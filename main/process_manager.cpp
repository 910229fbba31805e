#include "main/process_manager.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <utility>

#include "app/app_spec.h"
#include "app/integrity.h"
#include "app/launch_defaults.h"
#include "app/sensor_node_event_reporter.h"
#include "config/settings.h"
#include "main/common/boot_trace.h"
#include "main/common/clock.h"
#include "main/common/daemon_signals.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "platform/heartbeat.h"
#include "platform/power.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/device_worker.h"
#include "resource/share_pool.h"

namespace ProcMgr {
namespace {

constexpr const char* QUICK_START_MARKER = "/sys/fs/cgroup/notify_pm_done";
constexpr std::chrono::milliseconds CONTINUE_LOOK{5};
constexpr int CONTINUE_LOOKS_MAX = 2000;
constexpr std::chrono::milliseconds POWER_LOOK{1};
constexpr int MARKER_LOOKS = 20;  // the marker file is looked for at every so many-th look
// How long all threads and libraries together may take to end.
constexpr std::chrono::milliseconds END_PATIENCE{600};

// Names what did not end in time. Returns `isEnded`.
bool Ends(const char* what, bool isEnded) {
    if (!isEnded) {
        ProcMgrLog(LOG_ERR, "PROCMGR : %s does not end, it is left to the end of the process",
                   what);
    }
    return isEnded;
}

// Calls what may wait for others, on a thread of its own.
bool EndsBy(SteadyTime end, const char* name, std::function<void()> call) {
    NamedThread thread(name);
    thread.Start(std::move(call));
    return Ends(name, thread.Join(end));
}

// Ends what the platform calls; a call that runs is waited for.
bool EndPower(SteadyTime end) {
    constexpr int32_t BUSY = -16;
    while (UnregisterPowerCalls() == BUSY) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        SleepFor(POWER_LOOK);
    }
    return true;
}

}  // namespace

uint32_t ProcMgrRun(const std::string& path, bool& isClean) {
    auto manager = std::make_unique<ProcessManager>(path);
    uint32_t result = 1;
    try {
        if (manager->Init()) {
            manager->Run();
            result = 0;
        }
    } catch (const std::exception& error) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: Caught exception=%s", error.what());
    } catch (...) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: Caught unknown exception.");
    }
    isClean = manager->Shutdown();
    if (!isClean) {
        [[maybe_unused]] const ProcessManager* inUse = manager.release();
    }
    return result;
}

ProcessManager::ProcessManager(const std::string& path)
    : baseServiceCfgPath(path),
      launcher_(&sharePool_),
      dispatch_(MakeHandlers()),
      pipes_([this](int32_t fd, const MuxaRequest* request,
                    const std::string& owner) { dispatch_.RequestMsgHandler(fd, request, owner); },
             {.onOpen = [this](const std::string& owner) { sender_.Retry(owner); },
              .onBusy = [this] { sender_.Wake(); }}),
      sender_(pipes_, [this](const std::string& owner) { return GetPicture(owner); }),
      reports_(pipes_, sender_),
      baseServices_(launcher_, reportedState_, checks_, pipes_, reports_,
                    App::SensorNodeEventReporter::GetInstance()),
      generalApps_(launcher_, checks_, reports_, App::SensorNodeEventReporter::GetInstance(),
                   startupConfig_, baseServices_),
      managedRecords_(
          {[this](const App::RecordVisitor& visitor) { return baseServices_.Visit(visitor); },
           [this](const App::RecordVisitor& visitor) { return generalApps_.Visit(visitor); }},
          [this](const std::string& name) { return startupConfig_.Find(name).has_value(); }),
      affinityCheck_(managedRecords_),
      delayCoreAffinity_(managedRecords_),
      uploadRegistry_(sharePool_, managedRecords_),
      baseStartup_(baseServices_, reportedState_, bootCommandLine_),
      reaper_(
          {[this](int32_t pid, int32_t status) { return baseServices_.SetExitStatus(pid, status); },
           [this](int32_t pid, int32_t status) { return generalApps_.SetExitStatus(pid, status); },
           [this](int32_t pid, int32_t /*status*/) { return launcher_.TakeHelperExit(pid); }},
          [this] { HandleSignals(); }),
      childErrorReader_(running_) {}

bool ProcessManager::Init() {
    LoadProcMgrCfg(SETTINGS_FILE, settings_);
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.StorePid();
    bootCommandLine_.Read();
    env.CreateChildErrorPipe();
    sharePool_.Load(SHARE_POOL_DIRECTORY);
    launcher_.LoadIntegrityTable(App::HASH_FILE);
    UpdateStartupYaml();
    App::SetLockedMemoryLimit();
    App::InquireHomeEnvVariable();
    if (!env.IsQuickStart()) {
        CoreAffinityMgr::GetInstance().LoadCoreLists();
    }
    ProcMgrLog(LOG_INFO, "%s, init success", BootStrace(BOOT_TRACE_TAG).c_str());
    return true;
}

void ProcessManager::UpdateStartupYaml() {
    const std::string& path = ProcMgrEnv::GetInstance().GetStartupYaml();
    if (!path.empty()) {
        baseServiceCfgPath = path;
        ProcMgrLog(LOG_INFO, "ProcMgr: update pm startup yaml from cmdline, new path: %s",
                   path.c_str());
    }
}

void ProcessManager::Run() {
    checkThread_.Start([this] { CheckThread(); });
    waitThread_.Start([this] { WaitThread(); });
    reportThread_.Start([this] { sender_.Run(pipes_); });
    startUpThread_.Start([this] { StartUp(); });
    WaitForStop();
    StopApplications();
    const LockGuard lock(mutex_);
    if (startUpFailure_ != nullptr) {
        std::rethrow_exception(startUpFailure_);
    }
}

void ProcessManager::StartUp() {
    try {
        InitPriorityApps(baseServiceCfgPath);
        WaitContinueSignal();
        ContinueProcMgrInit();
        RegisterPower();
        receiveChildProcessMsgThread_.Start([this] { ReceiveChildProcessMsgThread(); });
        baseStartup_.InitBaseApplication(baseServiceCfgPath);
        unlink(QUICK_START_MARKER);
        // Parsing took memory that is not needed again.
        malloc_trim(0);
    } catch (...) {
        {
            const LockGuard lock(mutex_);
            startUpFailure_ = std::current_exception();
        }
        BeginStop();
    }
}

void ProcessManager::RegisterPower() {
    const int32_t ret = RegisterPowerCalls([this] { Suspend(); }, [this] { WakeUpRecover(); });
    if (ret != 0) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : the power calls cannot be registered, ret=%d", ret);
    }
}

void ProcessManager::InitPriorityApps(const std::string& path) {
    if (startupConfig_.LoadStartCfgInfo(path) != StartupConfig::OK) {
        ProcMgrLog(LOG_ERR, "process-manager InitPriorityApps failed LoadStartCfgInfo failed");
        return;
    }
    ProcMgrLog(LOG_INFO, "%s InitPriorityApps load priority apps cfg finish",
               BootStrace(BOOT_TRACE_TAG).c_str());
    generalApps_.StartPriorityApps();
    ProcMgrLog(LOG_INFO, "%s InitPriorityApps start priority apps finish",
               BootStrace(BOOT_TRACE_TAG).c_str());
    WriteBootTracePoint(POINT_PRIORITY_APPS);
}

bool ProcessManager::IsContinued() {
    for (int look = 1; !IsContinueReceived(); ++look) {
        if (look > CONTINUE_LOOKS_MAX) {
            return false;
        }
        SleepFor(CONTINUE_LOOK);
        const bool isMarked = look % MARKER_LOOKS == 0 && access(QUICK_START_MARKER, F_OK) == 0;
        if (isMarked || isStopping_) {
            break;
        }
    }
    return true;
}

void ProcessManager::WaitContinueSignal() {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    if (!env.IsQuickStart()) {
        ProcMgrLog(LOG_INFO, "is not quickstart, so not wait for continue signal");
        return;
    }
    const bool isContinued = IsContinued();
    const std::string now = BootStrace(BOOT_TRACE_TAG);
    const uint64_t counter = GetContinueCounter();
    if (isStopping_) {
        ProcMgrLog(LOG_INFO, "%s wait for continue startup ended by a stop", now.c_str());
    } else if (isContinued) {
        ProcMgrLog(LOG_INFO, "%s wait success for continue startup, catch continue signal time=%s",
                   now.c_str(), counter == 0 ? "" : BootStraceAt(counter, BOOT_TRACE_TAG).c_str());
    } else {
        ProcMgrLog(LOG_INFO, "%s wait for continue startup timeout!!", now.c_str());
    }
    env.SetQuickStart(false);
}

void ProcessManager::ContinueProcMgrInit() {
    WriteBootTracePoint(POINT_CONTINUE_INIT);
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.SetSlotId(ReadSlotId());
    ProcMgrLog(LOG_INFO, "pm Get board info success slotId_=%d", env.GetSlotId());
    CoreAffinityMgr::GetInstance().LoadCoreLists();
    CgroupMgr::GetInstance().ReadCfg();
    affinityCheck_.Start();
    if (settings_.pmuploadEnable && !uploadRegistry_.RegXCallBack()) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: pmuplaod RegXCallBack failed");
        return;
    }
    App::SensorNodeEventReporter::GetInstance().RegisterNodes();
    ProcMgrSysLog(LOG_INFO, "%s, ContinueProcMgrInit success", BootStrace(BOOT_TRACE_TAG).c_str());
}

RequestHandlers ProcessManager::MakeHandlers() {
    RequestHandlers handlers;
    handlers.startApp = [this](const auto& items, const auto& owner) {
        generalApps_.StartApp(items, owner);
    };
    handlers.restartApp = [this](const auto& items, const auto& owner) {
        generalApps_.RestartApp(items, owner);
    };
    handlers.termApp = [this](const auto& items, const auto& owner) {
        generalApps_.TermGeneralApp(items, owner);
    };
    handlers.queryAppState = [this](const auto& names, const auto& owner) {
        generalApps_.QueryAppState(names, owner);
    };
    handlers.baseServiceState = [this](const auto& info, const auto& owner) {
        HandleBaseServiceState(owner, static_cast<BaseServiceStateType>(info.state));
    };
    handlers.appExecution = [this](const auto& info, const auto& owner) {
        if (owner != PROC_VINTOR) {
            ProcMgrLog(LOG_ERR, "PROCMGR : APP_EXECUTION_REPORT of owner=%s is not taken",
                       owner.c_str());
            return;
        }
        reports_.RelayAppExecution(info);
    };
    handlers.setDelayCoreAffinity = [this](const auto& request) {
        return delayCoreAffinity_.SetDelayCoreAffinity(request);
    };
    handlers.loadStartupCfg = [this](const auto& info, const auto& /*owner*/, int32_t fd) {
        LoadStartupCfg(info, fd);
    };
    handlers.reloadStartupCfg = [this](const auto& info, const auto& /*owner*/, int32_t fd) {
        ReloadStartupCfg(info, fd);
    };
    return handlers;
}

void ProcessManager::HandleBaseServiceState(const std::string& owner, BaseServiceStateType state) {
    ProcMgrLog(LOG_INFO, "%s PM receive BASESERVICE_STATE_REPORT msg from %s report state=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), owner.c_str(),
               GetBaseServiceStateTypeStr(static_cast<uint64_t>(state)).c_str());
    const bool isZorn = owner == PROC_ZORNMGR;
    switch (state) {
        case BaseServiceStateType::INIT:
            if (isZorn) {
                reports_.RegisterVfs();
                sender_.OwePicture(owner);
                wasZornReady_ = false;  // it is told everything once
                HandleReady(owner);
                wasZornReady_ = true;
            }
            return;
        case BaseServiceStateType::RESTARTING:
            if (isZorn) {
                reports_.RegisterVfs();
                sender_.OwePicture(owner);
                sender_.Flush();
            }
            return;
        case BaseServiceStateType::RUNNING:
            HandleReady(owner);
            baseServices_.UpdateBaseAppState(owner, RUNNING);
            return;
        case BaseServiceStateType::TERMINATING:
            baseServices_.UpdateBaseAppState(owner, TERMINATING);
            return;
    }
}

void ProcessManager::HandleReady(const std::string& owner) {
    const bool isNew = baseServices_.UpdateBaseServerReadyInfo(owner);
    if (!isNew || owner != PROC_ZORNMGR) {
        sender_.Flush();
        return;
    }
    // An access manager that comes back does not know what its predecessor was told.
    if (wasZornReady_.exchange(true)) {
        reports_.RegisterVfs();
        sender_.OwePicture(owner);
    }
    generalApps_.ReportHeldBack();
    sender_.Retry(owner);
}

std::optional<std::vector<Message::AppStateInfo>> ProcessManager::GetPicture(
    const std::string& owner) {
    if (owner != PROC_ZORNMGR) {
        return generalApps_.GetStates(owner);
    }
    if (!baseServices_.IsReady(owner)) {
        return std::nullopt;
    }
    std::vector<Message::AppStateInfo> states = baseServices_.GetStates();
    std::erase_if(states, [](const auto& state) { return state.appName == PROC_ZORNMGR; });
    const std::vector<Message::AppStateInfo> apps = generalApps_.GetStates();
    states.insert(states.end(), apps.begin(), apps.end());
    return states;
}

void ProcessManager::LoadStartupCfg(const Message::StartupCfgInfo& info, int32_t fd) {
    ProcMgrLog(LOG_INFO, "%s PM receive LOAD_STARTUP_CFG msg load file=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), info.path.c_str());
    const uint32_t ret = startupConfig_.LoadStartCfgInfo(info.path, info.matchData);
    if (ret != StartupConfig::OK) {
        ProcMgrLog(LOG_ERR, "LoadStartCfgInfo failed, path=%s", info.path.c_str());
    }
    ProcMgrLog(LOG_INFO, "%s LoadStartCfgInfo finish ret=0x%X, fd=%d",
               BootStrace(BOOT_TRACE_TAG).c_str(), ret, fd);
    if (ret == StartupConfig::OK) {
        generalApps_.StartPriorityApps(info.path);
    }
}

void ProcessManager::ReloadStartupCfg(const Message::StartupCfgInfo& info, int32_t fd) {
    ProcMgrLog(LOG_INFO, "%s PM receive RELOAD_STARTUP_CFG msg load file=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), info.path.c_str());
    const uint32_t ret = startupConfig_.ReLoadStartCfgInfo(info.path, info.matchData);
    if (ret != StartupConfig::OK) {
        ProcMgrLog(LOG_ERR, "ReLoadStartCfgInfo failed, path=%s", info.path.c_str());
    }
    ProcMgrLog(LOG_INFO, "%s ReLoadStartCfgInfo finish ret=0x%X, fd=%d",
               BootStrace(BOOT_TRACE_TAG).c_str(), ret, fd);
    if (ret == StartupConfig::OK) {
        generalApps_.StartPriorityApps(info.path);
    }
}

void ProcessManager::CheckThread() {
    const SteadyTime begin = std::chrono::steady_clock::now();
    uint64_t cycle = 0;
    while (running_) {
        CheckApplications(CheckPass::PERIODIC);
        const uint64_t due = RunPeriodicChecks(cycle);
        // Cycles that would find nothing are left out; the next one keeps to the period's grid.
        const bool isAsked = checks_.WaitForAny(begin + due * CHECK_PERIOD);
        const auto passed = (std::chrono::steady_clock::now() - begin) / CHECK_PERIOD;
        cycle = std::max(cycle, static_cast<uint64_t>(passed));
        if (!isAsked) {
            continue;
        }
        ++cycle;
        while (checks_.WaitForNow(begin + cycle * CHECK_PERIOD)) {
            CheckApplications(CheckPass::EXTRA);
        }
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR: CheckThread exit now.");
}

uint64_t ProcessManager::RunPeriodicChecks(uint64_t cycle) {
    try {
        if (uploadTimer_.TakeDue(cycle)) {
            uploadRegistry_.DropGone();
        }
        if (affinityTimer_.TakeDue(cycle)) {
            CheckCoreAffinity();
        }
    } catch (const std::exception& error) {
        ProcMgrLog(LOG_ERR, "PROCMGR: CheckThread : %s, try again", error.what());
    }
    // Nothing wakes up for registrations that are not there.
    return uploadRegistry_.IsEmpty() ? affinityTimer_.GetNext()
                                     : std::min(affinityTimer_.GetNext(), uploadTimer_.GetNext());
}

void ProcessManager::CheckCoreAffinity() {
    // Before the first check the files that a recovery needs may not have been read.
    if (!affinityCheck_.Run()) {
        return;
    }
    // Looked at last: the platform may have told of it, and it has been recovered, during the
    // check.
    isRecoveryDue_ = wakeUpWatch_.HasWokenUp() || isRecoveryDue_;
    if (isRecoveryDue_) {
        delayCoreAffinity_.WakeUpRecover();
        isRecoveryDue_ = false;
    }
}

void ProcessManager::WakeUpRecover() {
    wakeUpWatch_.HasWokenUp();
    delayCoreAffinity_.WakeUpRecover();
}

void ProcessManager::CheckApplications(CheckPass pass) {
    checks_.Begin(pass);
    try {
        baseServices_.CheckBaseApps(pass);
        generalApps_.CheckGeneralApps(pass);
        RemoveTerminatedApps();
    } catch (const std::exception& error) {
        // The records say what there is still to do; the next cycle tries again.
        ProcMgrLog(LOG_ERR, "PROCMGR: CheckThread : %s, try again", error.what());
        checks_.Request();
    }
}

void ProcessManager::RemoveTerminatedApps() {
    baseServices_.RemoveTerminatedApps();
    generalApps_.RemoveTerminatedApps();
}

void ProcessManager::WaitThread() {
    reaper_.Run(running_);
}

void ProcessManager::ReceiveChildProcessMsgThread() {
    childErrorReader_.Run();
}

void ProcessManager::HandleSignals() {
    if (TakeHangUp()) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : SIGHUP is ignored");
    }
    if (IsStopRequested() && !isStopping_) {
        BeginStop();
    }
}

void ProcessManager::BeginStop() {
    // First: base start-up must not start a service after the applications are being ended.
    reportedState_.Stop();
    {
        const LockGuard lock(mutex_);
        isStopping_ = true;
    }
    condition_.NotifyAll();
    launcher_.CancelSlow();
}

void ProcessManager::WaitForStop() {
    UniqueLock lock(mutex_);
    condition_.Wait(lock, [this] { return isStopping_.load(); });
}

void ProcessManager::StopApplications() {
    ProcMgrLog(LOG_INFO, "PROCMGR : stop requested, all services are ended now");
    baseServices_.BeginStop();
    generalApps_.StopAll();
    baseServices_.StopAll();
    ProcMgrLog(LOG_INFO, "PROCMGR : all services have been ended");
}

bool ProcessManager::Shutdown() {
    const SteadyTime end = std::chrono::steady_clock::now() + END_PATIENCE;
    BeginStop();
    App::SensorNodeEventReporter::GetInstance().UnregisterAll();
    running_ = false;
    childErrorReader_.Stop();
    checks_.Stop();
    sender_.Stop();
    WakeSignalEvent();
    unlink(QUICK_START_MARKER);
    bool isClean = JoinThreads(end);
    // After the start-up thread, which registers it.
    isClean = Ends("power", EndPower(end)) && isClean;
    isClean = EndsBy(end, "affinity", [this] { delayCoreAffinity_.Stop(); }) && isClean;
    isClean = EndsBy(end, "heartbeat", DisableAllCheckHeartBeat) && isClean;
    isClean = Ends("upload", uploadRegistry_.Close(end)) && isClean;
    isClean = Ends("messages", pipes_.CloseAll(end)) && isClean;
    // Last: the one library call that nobody else waits for.
    isClean = Ends("device", DeviceWorker().Drain(end)) && isClean;
    if (isClean) {
        ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    }
    CloseLog();
    return isClean;
}

bool ProcessManager::JoinThreads(SteadyTime end) {
    // The start-up thread first: it starts the last of the others.
    const bool isStartUpOver = Ends(startUpThread_.GetName(), startUpThread_.Join(end));
    bool isClean = Ends("launch", launcher_.Stop(end)) && isStartUpOver;
    for (NamedThread* thread : {&waitThread_, &checkThread_, &reportThread_}) {
        isClean = Ends(thread->GetName(), thread->Join(end)) && isClean;
    }
    return isClean &&
           Ends(receiveChildProcessMsgThread_.GetName(), receiveChildProcessMsgThread_.Join(end));
}

}  // namespace ProcMgr
