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
#include "main/common/boot_trace.h"
#include "main/common/clock.h"
#include "main/common/daemon_signals.h"
#include "main/common/diagnostics.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "platform/heartbeat.h"
#include "platform/power.h"

namespace ProcMgr {
namespace {

// The pause between two attempts to end the power calls.
constexpr std::chrono::milliseconds POWER_PAUSE{1};
// How long all threads and libraries together may take to end.
constexpr std::chrono::milliseconds END_PATIENCE{600};
// The periods of the periodic checks in cycles. The first run comes one cycle early, because the
// check thread counts its cycles from 0.
constexpr CycleTimer UPLOAD_TIMER{10, 11};
constexpr uint64_t PLACEMENT_PERIOD = 21;
constexpr CycleTimer PLACEMENT_TIMER{20, PLACEMENT_PERIOD};
// These are due at cycles of the placement check, so that one wake-up serves both: about every 3
// and every 5 seconds.
constexpr CycleTimer LOGGER_TIMER{20, 5 * PLACEMENT_PERIOD};
constexpr CycleTimer EXIT_TIMER{20, 8 * PLACEMENT_PERIOD};

// Logs that the thread or library `what` did not end in time. Returns `isEnded`.
bool Ends(const char* what, bool isEnded) {
    if (!isEnded) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : %s has not ended in time and is left to the end of the process",
                   what);
    }
    return isEnded;
}

// Makes a call that may wait for others on a thread of its own. False when the call has not
// returned at `end`: the thread then runs until the process ends.
bool EndsBy(SteadyTime end, const char* name, std::function<void()> call) {
    NamedThread thread(name);
    thread.Start(std::move(call));
    return Ends(name, thread.Join(end));
}

// Ends the platform's calls of Suspend() and WakeUpRecover(). Waits for a running call; returns
// false when the call still runs at `end`.
bool EndPower(SteadyTime end) {
    constexpr int32_t BUSY = -16;
    while (UnregisterPowerCalls() == BUSY) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        SleepFor(POWER_PAUSE);
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
      launcher_(cgroups_, coreAffinity_, bindCount_, &sharePool_, &output_),
      picture_(baseServices_, generalApps_),
      sender_(pipes_, &picture_),
      pipes_([this](int32_t fd, const MuxaRequest* request,
                    const std::string& owner) { dispatch_.RequestMsgHandler(fd, request, owner); },
             &sender_),
      reports_(pipes_, sender_),
      baseServices_(launcher_, reportedState_, checks_, pipes_, reports_, faults_),
      generalApps_(launcher_, checks_, reports_, faults_, startupConfig_, baseServices_),
      managedRecords_(
          {[this](const App::RecordVisitor& visitor) { return baseServices_.Visit(visitor); },
           [this](const App::RecordVisitor& visitor) { return generalApps_.Visit(visitor); }},
          [this](const std::string& name) { return startupConfig_.Find(name).has_value(); }),
      affinityCheck_(cgroups_, coreAffinity_, managedRecords_),
      delayCoreAffinity_(cgroups_, coreAffinity_, bindCount_, managedRecords_),
      uploadRegistry_(sharePool_, managedRecords_),
      readiness_(baseServices_, reports_, sender_, generalApps_),
      requests_(
          {generalApps_, startupConfig_, readiness_, reports_, delayCoreAffinity_, coreAffinity_}),
      dispatch_(requests_),
      placementCheck_(affinityCheck_, delayCoreAffinity_),
      uploadCheck_(uploadRegistry_),
      checkLoop_(checks_, {baseServices_, generalApps_},
                 {{UPLOAD_TIMER, uploadCheck_},
                  {PLACEMENT_TIMER, placementCheck_},
                  {LOGGER_TIMER, loggerCheck_},
                  {EXIT_TIMER, exitCheck_}}),
      quickStartWait_(isStopping_),
      baseStartup_(baseServices_, reportedState_, bootCommandLine_),
      reaper_(
          {[this](int32_t pid, int32_t status) { return baseServices_.SetExitStatus(pid, status); },
           [this](int32_t pid, int32_t status) { return generalApps_.SetExitStatus(pid, status); },
           [this](int32_t pid, int32_t /*status*/) { return launcher_.TakeHelperExit(pid); },
           [this](int32_t /*pid*/, int32_t /*status*/) {
               ++changes_.GetCounters().unknownExits;
               return false;
           }},
          [this] { HandleExit(); }, [this] { return HandleWakeUp(); }),
      childErrorReader_(running_),
      status_({baseServices_, generalApps_, pipes_, sender_, faults_, changes_, phases_}) {
    phases_.Enter(Status::Phase::MAIN);
}

bool ProcessManager::Init() {
    phases_.Enter(Status::Phase::INIT);
    LoadProcMgrCfg(SETTINGS_FILE, settings_);
    KeepHistories();
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
        coreAffinity_.LoadCoreLists();
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

void ProcessManager::KeepHistories() {
    if (settings_.statusEnable) {
        changes_.Open();
        baseServices_.KeepHistories(changes_);
        generalApps_.KeepHistories(changes_);
    }
}

void ProcessManager::StartStatus() {
    if (settings_.statusEnable) {
        status_.SetOutput({[this](const std::string& name) { return output_.GetOutput(name); },
                           [this](const std::string& name) { return output_.LastLines(name); },
                           [this] { return output_.GetDroppedLines(); }});
        const bool isQuickStart = ProcMgrEnv::GetInstance().IsQuickStart();
        status_.Start(settings_.statusGroup, {{}, baseServiceCfgPath, isQuickStart});
    }
}

void ProcessManager::Run() {
    StartStatus();
    // The start-up thread last: the others handle the processes that it starts.
    checkThread_.Start([this] { CheckThread(); });
    waitThread_.Start([this] { WaitThread(); });
    reportThread_.Start([this] { sender_.Run(pipes_); });
    startUpThread_.Start([this] { StartUp(); });
    // While the start-up thread reads the manifest.
    launcher_.WarmUp();
    WaitForStop();
    StopApplications();
    const LockGuard lock(mutex_);
    if (startUpFailure_ != nullptr) {
        std::rethrow_exception(startUpFailure_);
    }
}

void ProcessManager::StartUp() {
    try {
        phases_.Enter(Status::Phase::PRIORITY_APPS);
        InitPriorityApps(baseServiceCfgPath);
        WaitContinueSignal();
        phases_.Enter(Status::Phase::CONTINUE_INIT);
        ContinueProcMgrInit();
        RegisterPower();
        receiveChildProcessMsgThread_.Start([this] { ReceiveChildProcessMsgThread(); });
        phases_.Enter(Status::Phase::BASE_SERVICES);
        baseStartup_.InitBaseApplication(baseServiceCfgPath);
        phases_.Enter(Status::Phase::RUNNING);
        unlink(QUICK_START_MARKER);
        // Gives the memory that parsing took back to the system.
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
    if (const FirstDiagnostic refusal; startupConfig_.LoadStartCfgInfo(path) != StartupConfig::OK) {
        ProcMgrLog(LOG_ERR, "process-manager InitPriorityApps failed LoadStartCfgInfo failed");
        baseServices_.NoteConfigError(refusal.Get());
        return;
    }
    ProcMgrLog(LOG_INFO, "%s InitPriorityApps load priority apps cfg finish",
               BootStrace(BOOT_TRACE_TAG).c_str());
    generalApps_.StartPriorityApps();
    ProcMgrLog(LOG_INFO, "%s InitPriorityApps start priority apps finish",
               BootStrace(BOOT_TRACE_TAG).c_str());
    WriteBootTracePoint(POINT_PRIORITY_APPS);
}

void ProcessManager::ContinueProcMgrInit() {
    WriteBootTracePoint(POINT_CONTINUE_INIT);
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.SetSlotId(ReadSlotId());
    ProcMgrLog(LOG_INFO, "pm Get board info success slotId_=%d", env.GetSlotId());
    coreAffinity_.LoadCoreLists();
    cgroups_.ReadCfg();
    affinityCheck_.Start();
    if (settings_.pmuploadEnable && !uploadRegistry_.RegXCallBack()) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: pmuplaod RegXCallBack failed");
        return;
    }
    faults_.RegisterNodes();
    ProcMgrSysLog(LOG_INFO, "%s, ContinueProcMgrInit success", BootStrace(BOOT_TRACE_TAG).c_str());
}

// At the stop the wait thread only collects exits, because a pass may wait for a library, and
// nothing is restarted any more.
void ProcessManager::HandleExit() {
    if (isStopping_) {
        checks_.Wake();
    } else {
        checkLoop_.RunUrgent();
    }
}

bool ProcessManager::HandleWakeUp() {
    if (TakeHangUp()) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : SIGHUP is ignored");
    }
    return checks_.WakeWhenQuiet();
}

void ProcessManager::WaitContinueSignal() {
    if (ProcMgrEnv::GetInstance().IsQuickStart()) {
        phases_.Enter(Status::Phase::WAITING_CONTINUE);
        // The wait may be long, and what parsing took is not needed meanwhile.
        malloc_trim(0);
    }
    quickStartWait_.WaitContinueSignal();
}

void ProcessManager::BeginStop() {
    phases_.Enter(Status::Phase::STOPPING);
    // Base start-up is stopped first, so that it starts no service once StopApplications() runs.
    reportedState_.Stop();
    isStopping_ = true;
    WakeStopEvent();
    launcher_.CancelSlow();
}

void ProcessManager::WaitForStop() {
    while (!isStopping_ && !IsStopRequested()) {
        WaitForStopEvent();
    }
    BeginStop();
}

void ProcessManager::StopApplications() {
    ProcMgrLog(LOG_INFO, "PROCMGR : stop requested, all services are ended now");
    // No base service is restarted from here on. The general applications are ended first, because
    // base services own them and receive the reports about their ends.
    baseServices_.BeginStop();
    generalApps_.StopAll();
    baseServices_.StopAll();
    ProcMgrLog(LOG_INFO, "PROCMGR : all services have been ended");
}

// First everything that waits is woken, then threads and libraries are ended one after the other,
// each after those that use it; a comment names the reason of each position.
bool ProcessManager::Shutdown() {
    const SteadyTime end = std::chrono::steady_clock::now() + END_PATIENCE;
    BeginStop();
    faults_.UnregisterAll();
    running_ = false;
    childErrorReader_.Stop();
    checks_.Stop();
    sender_.Stop();
    status_.Stop();
    WakeSignalEvent();
    unlink(QUICK_START_MARKER);
    bool isClean = JoinThreads(end);
    // Before the pipes are closed: clients see them as they were while the daemon worked.
    isClean = Ends("status", status_.Join(end)) && isClean;
    // After the start-up thread, which registers the power calls.
    isClean = Ends("power", EndPower(end)) && isClean;
    // After the power calls, which pin the same processes as the worker. A later request cannot
    // start another worker.
    isClean = EndsBy(end, "affinity", [this] { delayCoreAffinity_.Stop(); }) && isClean;
    // After the start-up and the check thread, which begin heartbeat watches.
    isClean = EndsBy(end, "heartbeat", DisableAllCheckHeartBeat) && isClean;
    // After the start-up thread, which creates the server, and the check thread, which drops
    // registrations.
    isClean = Ends("upload", uploadRegistry_.Close(end)) && isClean;
    // After every thread that opens a pipe or sends on one.
    isClean = Ends("messages", pipes_.CloseAll(end)) && isClean;
    // After every thread that starts processes, those of the messages among them.
    isClean = Ends("output", output_.Stop(end)) && isClean;
    // Last: every part above may have given the device worker calls to make.
    isClean = Ends("device", deviceWorker_.Drain(end)) && isClean;
    if (isClean) {
        ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    }
    CloseLog();
    return isClean;
}

bool ProcessManager::JoinThreads(SteadyTime end) {
    // The start-up thread first, because it starts the child-error thread.
    const bool isStartUpOver = Ends(startUpThread_.GetName(), startUpThread_.Join(end));
    // After the start-up thread, which launches too. Jobs that a pass gives to the launch workers
    // from here on are refused.
    bool isClean = Ends("launch", launcher_.Stop(end)) && isStartUpOver;
    for (NamedThread* thread : {&waitThread_, &checkThread_, &reportThread_}) {
        isClean = Ends(thread->GetName(), thread->Join(end)) && isClean;
    }
    return isClean &&
           Ends(receiveChildProcessMsgThread_.GetName(), receiveChildProcessMsgThread_.Join(end));
}

}  // namespace ProcMgr
