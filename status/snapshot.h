// Everything that a document shows, copied from the parts of the daemon. The containers' locks are
// held only while their records are copied; files of /proc are read afterwards.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/change_log.h"
#include "app/sensor_node_event_reporter.h"
#include "baseservice/boot_plan.h"
#include "main/common/clock.h"
#include "status/output_source.h"
#include "status/process_usage.h"
#include "status/startup_phases.h"

namespace ProcMgr {

class BaseServices;
class GeneralApps;
class OwnerPipes;
class ReportSender;

}  // namespace ProcMgr

namespace ProcMgr::Status {

// What does not change while the daemon runs.
struct DaemonFacts {
    std::string version;
    std::string config;  // the path of the base file
    bool isQuickStart = false;
};

// The counters of the server itself.
struct ServerCounters {
    uint64_t requests = 0;
    uint64_t refused = 0;  // clients that were closed at once
    uint64_t dropped = 0;  // clients that were too slow
};

struct Counters {
    uint64_t starts = 0;
    uint64_t startFailures = 0;
    uint64_t exits = 0;
    uint64_t unknownExits = 0;
    uint64_t stateChanges = 0;
    uint64_t outputLinesDropped = 0;
    ServerCounters server;
};

struct Entry {
    ServiceView view;  // of an application only view.app
    ProcessUsage usage;
    std::string output = "inherit";
    std::vector<std::string> outputTail;
};

struct PipeEntry {
    std::string owner;
    int32_t pid = 0;
    bool isOpen = false;
    uint64_t queuedReports = 0;
    uint64_t queuedStates = 0;
    uint64_t missed = 0;
};

// The present time of both clocks.
struct ClockPair {
    SteadyTime steady{};
    int64_t realtimeNs = 0;
};

struct Snapshot {
    ClockPair clock;
    DaemonFacts daemon;
    std::string configError;  // why the base file was refused; empty when it was not
    int32_t pid = 0;
    std::vector<StartupPhases::Entered> phases;
    ProcessUsage usage;  // of the daemon
    uint64_t logLinesDropped = 0;
    Counters counters;
    std::vector<Entry> services;      // all, in the order of the base file
    std::vector<Entry> applications;  // by name, also those that have ended
    std::vector<PipeEntry> pipes;
    std::vector<App::SensorNodeEventReporter::FaultView> faults;
    std::vector<App::ChangeLog::Entry> events;
    // Only the application of this name is shown, with its last lines; empty: all, without lines.
    std::string onlyName;
};

// All must outlive the object.
struct Sources {
    BaseServices& services;
    GeneralApps& applications;
    const OwnerPipes& pipes;
    const ReportSender& sender;
    const App::SensorNodeEventReporter& faults;
    const App::ChangeLog& changes;
    const StartupPhases& phases;
};

ClockPair ReadClocks();

// Not with a lock held. With an `onlyName` usage and output are found out for that application
// only.
Snapshot TakeSnapshot(const Sources& sources, const OutputSource& output, const DaemonFacts& daemon,
                      const ServerCounters& server, const std::string& onlyName);

}  // namespace ProcMgr::Status
