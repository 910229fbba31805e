// The one daemon object: constructs the parts, hands each what it needs, runs the start-up sequence
// and the long-lived threads, and takes everything down again.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/managed_records.h"
#include "app/process_launcher.h"
#include "baseservice/base_services.h"
#include "baseservice/base_startup.h"
#include "baseservice/child_error_reader.h"
#include "baseservice/reported_state.h"
#include "baseservice/watchdog.h"
#include "channel/owner_pipes.h"
#include "channel/owner_reports.h"
#include "channel/request_dispatch.h"
#include "config/boot_command_line.h"
#include "config/settings.h"
#include "generalapp/general_apps.h"
#include "generalapp/reaper.h"
#include "generalapp/startup_config.h"
#include "main/check_requests.h"
#include "main/cycle_timer.h"
#include "resource/affinity_check.h"
#include "resource/delay_core_affinity.h"
#include "resource/share_pool.h"
#include "resource/upload_registry.h"
#include "resource/wake_up_watch.h"

namespace ProcMgr {

// Runs the daemon with the base services of the file at `path`, a normalised path. Returns when it
// was told to stop: 0, or 1 when it failed.
uint32_t ProcMgrRun(const std::string& path);

class ProcessManager {
public:
    explicit ProcessManager(const std::string& baseServiceCfgPath);
    // The orderly shutdown: wakes and joins every thread. Leaves the children alone.
    ~ProcessManager();
    ProcessManager(const ProcessManager&) = delete;
    ProcessManager& operator=(const ProcessManager&) = delete;

    // The first half of the initialisation. Its steps report their own failures: always true.
    bool Init();

    // Starts the threads and the base services; returns after the applications have been stopped.
    void Run();

    // For a platform that knows of a suspend before it comes, and of the resume: one that it tells
    // of is not noticed once more by CheckThread. Callable from any thread, once start-up has come
    // to the base services.
    void Suspend() { delayCoreAffinity_.Suspend(); }
    void WakeUpRecover();

    // The hardware watchdog; see baseservice/watchdog.h. Ready for a start-up sequence that wants
    // it.
    static bool InsertWatchDogKo(const ProcMgrSettings& settings) {
        return ProcMgr::InsertWatchDogKo(settings);
    }
    static bool IsWatchDogKoInserted(const std::string& module) {
        return ProcMgr::IsWatchDogKoInserted(module);
    }
    static bool InsmodKo(const ProcMgrSettings& settings) { return ProcMgr::InsmodKo(settings); }
    static bool EnableFeedDog(const std::string& timeout) {
        return ProcMgr::EnableFeedDog(timeout);
    }

private:
    // Quick start: waits until the platform says that start-up may go on, 10 s at most.
    void WaitContinueSignal();
    bool IsContinued();
    void ContinueProcMgrInit();
    void InitPriorityApps(const std::string& path);
    // A base-service file that the boot command line names takes the place of the argument's.
    void UpdateStartupYaml();

    // Thread bodies.
    void CheckThread();
    void WaitThread();
    void ReceiveChildProcessMsgThread();

    // What the requests of owners lead to; on threads of the messaging library.
    RequestHandlers MakeHandlers();
    void HandleBaseServiceState(const std::string& owner, BaseServiceStateType state);
    void HandleReady(const std::string& owner);
    // Gives an access manager that knows nothing yet the whole picture.
    void ReportEverythingToZorn();
    std::vector<Message::AppStateInfo> GetStates();
    void LoadStartupCfg(const Message::StartupCfgInfo& info, int32_t fd);
    void ReloadStartupCfg(const Message::StartupCfgInfo& info, int32_t fd);

    // Runs what is due at a cycle; returns the cycle at which the next of it is.
    uint64_t RunPeriodicChecks(uint64_t cycle);
    void CheckCoreAffinity();
    void CheckApplications(CheckPass pass);
    void RemoveTerminatedApps();

    // Passes a stop signal on to whoever waits for it. Called by WaitThread.
    void ForwardStop();
    void WaitForStop();
    void StopApplications();
    void JoinThreads();

    std::mutex mutex_;
    std::condition_variable condition_;  // the stop flag has changed
    std::string baseServiceCfgPath;
    std::atomic<bool> running_{true};        // every thread loop ends when it is false
    std::atomic<bool> isStopping_{false};    // an orderly stop has begun
    std::atomic<bool> wasZornReady_{false};  // the access manager has been ready once

    ProcMgrSettings settings_;         // constant after Init
    BootCommandLine bootCommandLine_;  // the main thread's

    SharePool sharePool_;
    App::ProcessLauncher launcher_;
    ReportedState reportedState_;
    CheckRequests checks_;
    RequestDispatch dispatch_;  // its handlers run only between the opening and CloseAll of pipes_
    OwnerPipes pipes_;
    OwnerReports reports_;
    BaseServices baseServices_;
    StartupConfig startupConfig_;
    GeneralApps generalApps_;
    App::ManagedRecords managedRecords_;
    AffinityCheck affinityCheck_;
    DelayCoreAffinity delayCoreAffinity_;
    UploadRegistry uploadRegistry_;
    WakeUpWatch wakeUpWatch_;
    // CheckThread's. The first time of each comes a cycle early.
    CycleTimer uploadTimer_{10, 11};
    CycleTimer affinityTimer_{20, 21};
    bool isRecoveryDue_ = false;
    BaseStartup baseStartup_;
    Reaper reaper_;
    ChildErrorReader childErrorReader_;

    std::thread checkThread_;
    std::thread receiveChildProcessMsgThread_;
    std::thread waitThread_;
};

}  // namespace ProcMgr
