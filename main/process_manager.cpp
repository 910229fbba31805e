#include "main/process_manager.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>

#include "app/launch_defaults.h"
#include "app/sensor_node_event_reporter.h"
#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/log.h"
#include "main/proc_mgr_env.h"
#include "main/signals.h"
#include "main/system.h"
#include "platform/heartbeat.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"

namespace ProcMgr {
namespace {

constexpr std::chrono::milliseconds CONTINUE_LOOK{5};
constexpr int CONTINUE_LOOKS_MAX = 2000;
constexpr int MARKER_LOOKS = 20;  // the marker file is looked for at every so many-th look

}  // namespace

uint32_t ProcMgrRun(const std::string& path) {
    ProcessManager manager(path);
    if (!manager.Init()) {
        return 1;
    }
    try {
        manager.Run();
        return 0;
    } catch (const std::exception& error) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: Caught exception=%s", error.what());
    } catch (...) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: Caught unknown exception.");
    }
    return 1;
}

ProcessManager::ProcessManager(const std::string& path)
    : baseServiceCfgPath(path),
      launcher_(&sharePool_),
      dispatch_(MakeHandlers()),
      pipes_([this](int32_t fd, const MuxaRequest* request, const std::string& owner) {
          dispatch_.RequestMsgHandler(fd, request, owner);
      }),
      reports_(pipes_),
      baseServices_(launcher_, reportedState_, checks_, pipes_, reports_),
      generalApps_(launcher_, checks_, reports_, startupConfig_,
                   {.isZornReady = [this] { return baseServices_.IsReady(PROC_ZORNMGR); },
                    .getOwners = [this] { return baseServices_.GetOwners(); }}),
      managedRecords_(
          {[this](const App::RecordVisitor& visitor) { return baseServices_.Visit(visitor); },
           [this](const App::RecordVisitor& visitor) { return generalApps_.Visit(visitor); }},
          [this](const std::string& name) { return startupConfig_.Find(name).has_value(); }),
      affinityCheck_(managedRecords_),
      delayCoreAffinity_(managedRecords_),
      uploadRegistry_(sharePool_, managedRecords_),
      baseStartup_(baseServices_, reportedState_, bootCommandLine_,
                   [this] { return isStopping_.load(); }),
      reaper_(
          {[this](int32_t pid, int32_t status) { return baseServices_.SetExitStatus(pid, status); },
           [this](int32_t pid, int32_t status) { return generalApps_.SetExitStatus(pid, status); }},
          [this] { ForwardStop(); }),
      childErrorReader_(running_) {}

ProcessManager::~ProcessManager() {
    condition_.notify_all();
    reportedState_.Notify();
    App::SensorNodeEventReporter::GetInstance().UnregisterAll();
    DisableAllCheckHeartBeat();
    running_ = false;
    delayCoreAffinity_.Stop();
    childErrorReader_.Stop();
    checks_.Stop();
    WakeSignalEvent();
    unlink(QUICK_START_MARKER);
    JoinThreads();
    // A restart may have registered one in between.
    DisableAllCheckHeartBeat();
    uploadRegistry_.Close(std::chrono::steady_clock::now() + std::chrono::milliseconds(500));
    pipes_.CloseAll();
    ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    CloseLog();
}

bool ProcessManager::Init() {
    LoadProcMgrCfg(SETTINGS_FILE, settings_);
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.StorePid();
    bootCommandLine_.Read();
    env.CreateChildErrorPipe();
    sharePool_.Load(SHARE_POOL_DIRECTORY);
    launcher_.LoadIntegrityTable(HASH_FILE);
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
    checkThread_ = std::thread(&ProcessManager::CheckThread, this);
    waitThread_ = std::thread(&ProcessManager::WaitThread, this);
    InitPriorityApps(baseServiceCfgPath);
    WaitContinueSignal();
    ContinueProcMgrInit();
    receiveChildProcessMsgThread_ =
        std::thread(&ProcessManager::ReceiveChildProcessMsgThread, this);
    baseStartup_.InitBaseApplication(baseServiceCfgPath);
    unlink(QUICK_START_MARKER);
    // Parsing took memory that is not needed again.
    malloc_trim(0);
    WaitForStop();
    StopApplications();
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
                ReportEverythingToZorn();
                wasZornReady_ = false;  // it need not be told again
                HandleReady(owner);
                wasZornReady_ = true;
            }
            return;
        case BaseServiceStateType::RESTARTING:
            if (isZorn) {
                ReportEverythingToZorn();
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
        return;
    }
    // One that comes back has lost what it was told before.
    if (wasZornReady_.exchange(true)) {
        ReportEverythingToZorn();
    }
    generalApps_.ReportHeldBack();
}

void ProcessManager::ReportEverythingToZorn() {
    constexpr int ATTEMPTS = 5;
    reports_.RegisterVfs();
    // A change that is told while this is on its way would be overwritten by it: it is told again
    // until nothing has changed meanwhile.
    std::vector<Message::AppStateInfo> told;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        std::vector<Message::AppStateInfo> states = GetStates();
        if (states == told) {
            return;
        }
        reports_.ReportAppState(states, PROC_ZORNMGR);
        told.swap(states);
    }
}

std::vector<Message::AppStateInfo> ProcessManager::GetStates() {
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
    } catch (const std::bad_alloc&) {
        ProcMgrLog(LOG_ERR, "PROCMGR: CheckThread : out of memory, try again");
    }
    // Nothing wakes up for registrations that are not there.
    return uploadRegistry_.IsEmpty() ? affinityTimer_.GetNext()
                                     : std::min(affinityTimer_.GetNext(), uploadTimer_.GetNext());
}

void ProcessManager::CheckCoreAffinity() {
    isRecoveryDue_ = wakeUpWatch_.HasWokenUp() || isRecoveryDue_;
    // Before the first check the files that a recovery needs may not have been read.
    if (affinityCheck_.Run() && isRecoveryDue_) {
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
    } catch (const std::bad_alloc&) {
        // The records say what there is still to do; the next cycle tries again.
        ProcMgrLog(LOG_ERR, "PROCMGR: CheckThread : out of memory, try again");
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

void ProcessManager::ForwardStop() {
    if (!IsStopRequested() || isStopping_) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        isStopping_ = true;
    }
    condition_.notify_all();
    reportedState_.Notify();
}

void ProcessManager::WaitForStop() {
    std::unique_lock lock(mutex_);
    condition_.wait(lock, [this] { return isStopping_.load(); });
}

void ProcessManager::StopApplications() {
    ProcMgrLog(LOG_INFO, "PROCMGR : stop requested, all services are ended now");
    generalApps_.StopAll();
    baseServices_.StopAll();
    ProcMgrLog(LOG_INFO, "PROCMGR : all services have been ended");
}

void ProcessManager::JoinThreads() {
    for (std::thread* thread : {&waitThread_, &checkThread_, &receiveChildProcessMsgThread_}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
}

}  // namespace ProcMgr
