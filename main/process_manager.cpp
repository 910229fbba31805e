#include "main/process_manager.h"

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <exception>

#include "app/launch_defaults.h"
#include "app/sensor_node_event_reporter.h"
#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/log.h"
#include "main/proc_mgr_env.h"
#include "main/signals.h"
#include "main/system.h"
#include "platform/heartbeat.h"

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
      dispatch_({.baseServiceState =
                     [this](const std::string& owner, const Message::BaseServiceStateInfo& info) {
                         baseServices_.HandleStateReport(owner, info);
                     }}),
      pipes_([this](int32_t fd, const MuxaRequest* request, const std::string& owner) {
          dispatch_.RequestMsgHandler(fd, request, owner);
      }),
      reports_(pipes_),
      baseServices_(launcher_, reportedState_, checks_, pipes_, reports_),
      baseStartup_(baseServices_, reportedState_, bootCommandLine_, pipes_, reports_,
                   [this] { return isStopping_.load(); }),
      reaper_({[this](int32_t pid, int32_t status) {
                  return baseServices_.SetExitStatus(pid, status);
              }},
              [this] { ForwardStop(); }),
      childErrorReader_(running_) {}

ProcessManager::~ProcessManager() {
    condition_.notify_all();
    reportedState_.Notify();
    App::SensorNodeEventReporter::GetInstance().UnregisterAll();
    DisableAllCheckHeartBeat();
    running_ = false;
    childErrorReader_.Stop();
    checks_.Stop();
    WakeSignalEvent();
    unlink(QUICK_START_MARKER);
    JoinThreads();
    // A restart may have registered one in between.
    DisableAllCheckHeartBeat();
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
    launcher_.LoadIntegrityTable(HASH_FILE);
    UpdateStartupYaml();
    App::SetLockedMemoryLimit();
    App::InquireHomeEnvVariable();
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
    App::SensorNodeEventReporter::GetInstance().RegisterNodes();
    ProcMgrSysLog(LOG_INFO, "%s, ContinueProcMgrInit success", BootStrace(BOOT_TRACE_TAG).c_str());
}

void ProcessManager::CheckThread() {
    SteadyTime cycle = std::chrono::steady_clock::now();
    while (running_) {
        CheckApplications(CheckPass::PERIODIC);
        // A cycle that would find nothing is left out; the next one keeps to the period's grid.
        checks_.WaitForAny();
        cycle += ((std::chrono::steady_clock::now() - cycle) / CHECK_PERIOD + 1) * CHECK_PERIOD;
        while (checks_.WaitForNow(cycle)) {
            CheckApplications(CheckPass::EXTRA);
        }
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR: CheckThread exit now.");
}

void ProcessManager::CheckApplications(CheckPass pass) {
    checks_.Begin(pass);
    baseServices_.CheckBaseApps(pass);
    RemoveTerminatedApps();
}

void ProcessManager::RemoveTerminatedApps() {
    baseServices_.RemoveTerminatedApps();
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
