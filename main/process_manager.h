// The one daemon object: constructs the parts, hands each what it needs, runs the start-up sequence
// and the long-lived threads, and takes everything down again.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "app/child_error_reader.h"
#include "app/managed_records.h"
#include "app/process_launcher.h"
#include "app/reaper.h"
#include "baseservice/base_services.h"
#include "baseservice/base_startup.h"
#include "baseservice/reported_state.h"
#include "baseservice/watchdog.h"
#include "channel/owner_pipes.h"
#include "channel/owner_reports.h"
#include "channel/report_sender.h"
#include "channel/request_dispatch.h"
#include "config/boot_command_line.h"
#include "config/settings.h"
#include "generalapp/general_apps.h"
#include "generalapp/startup_config.h"
#include "main/common/check_requests.h"
#include "main/common/cycle_timer.h"
#include "main/common/mutex.h"
#include "main/common/threads.h"
#include "resource/affinity_check.h"
#include "resource/delay_core_affinity.h"
#include "resource/device_worker.h"
#include "resource/share_pool.h"
#include "resource/upload_registry.h"
#include "resource/wake_up_watch.h"

namespace ProcMgr {

// Runs the daemon with the base services of the file at `path`, a normalised path. Returns when it
// was told to stop: 0, or 1 when it failed. `isClean` is false when threads did not end in time:
// the process must then end without destroying anything.
uint32_t ProcMgrRun(const std::string& path, bool& isClean);

class ProcessManager {
public:
    explicit ProcessManager(const std::string& baseServiceCfgPath);
    // After a Shutdown() that was clean.
    ~ProcessManager() = default;
    ProcessManager(const ProcessManager&) = delete;
    ProcessManager& operator=(const ProcessManager&) = delete;

    // The first half of the initialisation. Its steps report their own failures: always true.
    bool Init();

    // Starts the threads and the base services; returns after the applications have been stopped.
    void Run();

    // The orderly shutdown: wakes and joins every thread, within a second. Leaves the children
    // alone. False when something did not end in time, which the log names: this object must then
    // live until the process ends.
    bool Shutdown();

    // What the platform calls before a suspend and after the resume: one that it tells of is not
    // noticed once more by CheckThread. Callable from any thread, once start-up has come to the
    // base services.
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
    // The thread that starts everything up: what it waits for cannot hold up the stop.
    void StartUp();
    // Quick start: waits until the platform says that start-up may go on, 10 s at most.
    void WaitContinueSignal();
    bool IsContinued();
    void RegisterPower();
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
    void LoadStartupCfg(const Message::StartupCfgInfo& info, int32_t fd);
    void ReloadStartupCfg(const Message::StartupCfgInfo& info, int32_t fd);

    // Runs what is due at a cycle; returns the cycle at which the next of it is.
    uint64_t RunPeriodicChecks(uint64_t cycle);
    void CheckCoreAffinity();
    void CheckApplications(CheckPass pass);
    void RemoveTerminatedApps();

    // Passes a stop signal on to whoever waits for it, and names a hang-up. Called by WaitThread.
    void HandleSignals();
    void BeginStop();
    void WaitForStop();
    void StopApplications();
    bool JoinThreads(SteadyTime end);
    // What `owner` is told when it has missed something; see ReportSender.
    std::optional<std::vector<Message::AppStateInfo>> GetPicture(const std::string& owner);

    Mutex mutex_;
    Condition condition_;                // the stop flag has changed
    std::exception_ptr startUpFailure_;  // guarded by mutex_
    std::string baseServiceCfgPath;
    std::atomic<bool> running_{true};        // every thread loop ends when it is false
    std::atomic<bool> isStopping_{false};    // an orderly stop has begun
    std::atomic<bool> wasZornReady_{false};  // the access manager has been ready once

    ProcMgrSettings settings_;         // constant after Init
    BootCommandLine bootCommandLine_;  // of Init, then of the start-up thread

    SharePool sharePool_{DeviceWorker()};
    App::ProcessLauncher launcher_;
    ReportedState reportedState_;
    CheckRequests checks_;
    RequestDispatch dispatch_;  // its handlers run only between the opening and CloseAll of pipes_
    OwnerPipes pipes_;
    ReportSender sender_;
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

    NamedThread startUpThread_{"start-up"};
    NamedThread checkThread_{"check"};
    NamedThread receiveChildProcessMsgThread_{"child-errors"};
    NamedThread waitThread_{"wait"};
    NamedThread reportThread_{"reports"};
};

}  // namespace ProcMgr
