// The one daemon object: constructs the parts, passes each the parts that it uses, runs the
// start-up sequence and the long-lived threads, and ends everything again. main() uses it by
// ProcMgrRun().
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <string>

#include "app/change_log.h"
#include "app/child_error_reader.h"
#include "app/managed_records.h"
#include "app/process_launcher.h"
#include "app/reaper.h"
#include "app/sensor_node_event_reporter.h"
#include "baseservice/base_services.h"
#include "baseservice/base_startup.h"
#include "baseservice/quick_start_wait.h"
#include "baseservice/readiness.h"
#include "baseservice/reported_state.h"
#include "baseservice/watchdog.h"
#include "channel/owner_pipes.h"
#include "channel/owner_reports.h"
#include "channel/report_sender.h"
#include "channel/request_dispatch.h"
#include "config/boot_command_line.h"
#include "config/settings.h"
#include "generalapp/general_apps.h"
#include "generalapp/owner_requests.h"
#include "generalapp/startup_config.h"
#include "generalapp/state_picture.h"
#include "main/common/check_loop.h"
#include "main/common/check_requests.h"
#include "main/common/mutex.h"
#include "main/common/threads.h"
#include "output/output_relay.h"
#include "resource/affinity_check.h"
#include "resource/bind_count.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/delay_core_affinity.h"
#include "resource/device_worker.h"
#include "resource/periodic_checks.h"
#include "resource/share_pool.h"
#include "resource/upload_registry.h"
#include "status/startup_phases.h"
#include "status/status_endpoint.h"

namespace ProcMgr {

// Runs the daemon with the base services of the file at `path`, a normalised path. Returns after a
// stop has been requested and carried out: 0, or 1 after a failure of start-up. `isClean` becomes
// false when threads or libraries did not end in time: the process must then end without destroying
// anything.
uint32_t ProcMgrRun(const std::string& path, bool& isClean);

class ProcessManager {
public:
    explicit ProcessManager(const std::string& baseServiceCfgPath);
    // Only after a Shutdown() that returned true.
    ~ProcessManager() = default;
    ProcessManager(const ProcessManager&) = delete;
    ProcessManager& operator=(const ProcessManager&) = delete;

    // The first half of the initialisation. Its steps report their own failures: always true.
    bool Init();

    // Starts the threads and the base services. Returns after a stop has been requested and the
    // applications have been ended; rethrows an exception that has ended start-up.
    void Run() PROCMGR_EXCLUDES(mutex_);

    // Wakes and joins every thread and ends the libraries' calls into the daemon, within a second.
    // Does not touch the children. False when something did not end in time, which the log names:
    // this object must then live until the process ends.
    bool Shutdown() PROCMGR_EXCLUDES(mutex_);

    // The platform calls these before a suspend of the system and after the resume, on any thread.
    // After an announced suspend the check thread does not repeat the recovery. The platform calls
    // them only after RegisterPower().
    void Suspend() { placementCheck_.Suspend(); }
    void WakeUpRecover() { placementCheck_.WakeUpRecover(); }

    // The hardware watchdog; see baseservice/watchdog.h. The daemon itself does not call these
    // operations: they are for a start-up sequence of the platform that wants the watchdog.
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
    // The body of the start-up thread. A thread of its own, because the main thread has to react to
    // a stop while a step of start-up waits.
    void StartUp();
    // A base-service file on the boot command line replaces the one of the daemon's arguments.
    void UpdateStartupYaml();
    // Switch the status endpoint on, if the settings ask for it: first the histories that it shows,
    // before there are other threads, later its thread.
    void KeepHistories();
    void StartStatus();
    void InitPriorityApps(const std::string& path);
    void WaitContinueSignal();
    void ContinueProcMgrInit();
    void RegisterPower();

    // The bodies of the other threads.
    void CheckThread() { checkLoop_.Run(); }
    void WaitThread() { reaper_.Run(running_); }
    void ReceiveChildProcessMsgThread() { childErrorReader_.Run(); }

    // What the wait thread does when it has collected an exit, and after every wake-up. True when
    // the wait thread is to call it again soon.
    void HandleExit();
    bool HandleWakeUp();
    // Wakes every thread that waits for something which the stop makes pointless.
    void BeginStop();
    // Waits for SIGTERM, SIGINT or a failure of start-up, and begins the stop.
    void WaitForStop();
    void StopApplications();
    bool JoinThreads(SteadyTime end);

    Mutex mutex_;
    std::exception_ptr startUpFailure_ PROCMGR_GUARDED_BY(mutex_);
    std::string baseServiceCfgPath;
    // The loops of the wait thread and the child-error thread end when it is false.
    std::atomic<bool> running_{true};
    // An orderly stop has begun.
    std::atomic<bool> isStopping_{false};

    ProcMgrSettings settings_;         // constant after Init()
    BootCommandLine bootCommandLine_;  // used by Init(), then by the start-up thread

    // The parts, in the order of their construction: each one after the parts that its constructor
    // passes to it. Reports, pipes, requests and containers refer to each other in a circle, so
    // three parts refer to parts that are constructed later: picture_ to the containers, sender_ to
    // pipes_, and the callback of pipes_ to dispatch_. None of these is used before Run(). The
    // destruction, in reverse order, has nothing to wait for: Shutdown() has ended all threads and
    // all calls of libraries before. The first five are single instances of the process that are
    // never destroyed. Only this class calls their accessor functions; the other parts get
    // references. One exception: SensorNodeEventReporter::GetInstance() calls DeviceWorker()
    // itself.
    SerialWorker& deviceWorker_ = DeviceWorker();
    CgroupMgr& cgroups_ = CgroupMgr::GetInstance();
    CoreAffinityMgr& coreAffinity_ = CoreAffinityMgr::GetInstance();
    BindCount& bindCount_ = BindCount::GetInstance();
    App::SensorNodeEventReporter& faults_ = App::SensorNodeEventReporter::GetInstance();
    Status::StartupPhases phases_;  // entered by the main thread and the start-up thread
    App::ChangeLog changes_;        // written by the histories of the records in both containers
    SharePool sharePool_{deviceWorker_};
    Output::OutputRelay output_;
    App::ProcessLauncher launcher_;  // puts processes into groups of sharePool_; output_ reads them
    ReportedState reportedState_;
    CheckRequests checks_;
    StatePicture picture_;  // reads the states in both containers
    ReportSender sender_;   // sends on pipes_; asks picture_ for an owner that has missed reports
    OwnerPipes pipes_;      // reports opened pipes to sender_; passes requests to dispatch_
    OwnerReports reports_;  // queues reports in sender_
    BaseServices baseServices_;
    StartupConfig startupConfig_;
    GeneralApps generalApps_;             // asks baseServices_ for the owners
    App::ManagedRecords managedRecords_;  // the view that resource control has of both containers
    AffinityCheck affinityCheck_;
    DelayCoreAffinity delayCoreAffinity_;
    UploadRegistry uploadRegistry_;
    Readiness readiness_;
    OwnerRequests requests_;    // after everything that a request may change
    RequestDispatch dispatch_;  // passes each request to requests_
    PlacementCheck placementCheck_;
    UploadCheck uploadCheck_;
    LoggerCheck loggerCheck_;
    ExitCheck exitCheck_;
    CheckLoop checkLoop_;  // after everything that the check thread checks
    QuickStartWait quickStartWait_;
    BaseStartup baseStartup_;
    Reaper reaper_;  // stores exits in both containers and in launcher_
    ChildErrorReader childErrorReader_;
    Status::StatusEndpoint status_;  // reads the containers, the pipes, the queues and the faults

    // The threads last: they use everything above.
    NamedThread startUpThread_{"start-up"};
    NamedThread checkThread_{"check"};
    NamedThread receiveChildProcessMsgThread_{"child-errors"};
    NamedThread waitThread_{"wait"};
    NamedThread reportThread_{"reports"};
};

}  // namespace ProcMgr
