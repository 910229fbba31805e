#include "status/snapshot.h"

#include <chrono>
#include <ctime>
#include <map>
#include <utility>

#include "app/managed_records.h"
#include "baseservice/base_services.h"
#include "channel/owner_pipes.h"
#include "channel/report_sender.h"
#include "generalapp/general_apps.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr::Status {
namespace {

constexpr int64_t NANOSECONDS = 1'000'000'000;

// The pid may have been given to another process between the copy and the reading. While the record
// still has the process afterwards, the usage was that of the process.
template <typename Container>
void FindUsage(Container& container, Entry& entry) {
    const App::AppView& app = entry.view.app;
    const std::optional<ProcessUsage> usage =
        app.pid > 0 ? ReadProcessUsage(app.pid) : std::nullopt;
    if (!usage) {
        return;
    }
    const SteadyTime started = app.history.started;
    const bool isSame = container.Visit(App::RecordVisitor::ForProcess(
        app.pid, [started](const App::AppInfo& record) { return record.startTime_ == started; }));
    if (isSame) {
        entry.usage = *usage;
    }
}

void FindOutput(const OutputSource& output, bool hasTail, Entry& entry) {
    const std::string& name = entry.view.app.facts->name;
    if (output.describe) {
        entry.output = output.describe(name);
    }
    if (hasTail && output.tail) {
        entry.outputTail = output.tail(name);
    }
}

template <typename Container>
void Complete(Container& container, const OutputSource& output, const std::string& onlyName,
              std::vector<Entry>& entries) {
    for (Entry& entry : entries) {
        if (onlyName.empty() || entry.view.app.facts->name == onlyName) {
            FindUsage(container, entry);
            FindOutput(output, !onlyName.empty(), entry);
        }
    }
}

std::vector<Entry> ServicesOf(BaseServices& services) {
    std::vector<ServiceView> views = services.GetViews();
    std::vector<Entry> entries(views.size());
    for (size_t i = 0; i < views.size(); ++i) {
        entries[i].view = std::move(views[i]);
    }
    return entries;
}

std::vector<Entry> ApplicationsOf(GeneralApps& applications) {
    std::vector<App::AppView> views = applications.GetViews();
    std::vector<Entry> entries(views.size());
    for (size_t i = 0; i < views.size(); ++i) {
        entries[i].view.app = std::move(views[i]);
    }
    return entries;
}

std::vector<PipeEntry> PipesOf(const OwnerPipes& pipes, const ReportSender& sender) {
    const std::map<std::string, ReportSender::QueueView> queues = sender.GetQueues();
    std::vector<PipeEntry> entries;
    for (OwnerPipes::View& pipe : pipes.GetViews()) {
        PipeEntry entry{std::move(pipe.owner), pipe.pid, pipe.isOpen};
        if (const auto queue = queues.find(entry.owner); queue != queues.end()) {
            entry.queuedReports = queue->second.reports;
            entry.queuedStates = queue->second.states;
            entry.missed = queue->second.missed;
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

Counters CountersOf(const App::ChangeLog& changes, const OutputSource& output,
                    const ServerCounters& server) {
    const App::ChangeLog::Counters& counters = changes.GetCounters();
    return {.starts = counters.starts,
            .startFailures = counters.startFailures,
            .exits = counters.exits,
            .unknownExits = counters.unknownExits,
            .stateChanges = counters.stateChanges,
            .outputLinesDropped = output.countDropped ? output.countDropped() : 0,
            .server = server};
}

}  // namespace

ClockPair ReadClocks() {
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    return {std::chrono::steady_clock::now(), int64_t{wall.tv_sec} * NANOSECONDS + wall.tv_nsec};
}

Snapshot TakeSnapshot(const Sources& sources, const OutputSource& output, const DaemonFacts& daemon,
                      const ServerCounters& server, const std::string& onlyName) {
    Snapshot snapshot;
    snapshot.daemon = daemon;
    snapshot.onlyName = onlyName;
    snapshot.pid = ProcMgrEnv::GetInstance().GetPid();
    snapshot.configError = sources.services.GetConfigError();
    snapshot.services = ServicesOf(sources.services);
    snapshot.applications = ApplicationsOf(sources.applications);
    snapshot.pipes = PipesOf(sources.pipes, sources.sender);
    snapshot.faults = sources.faults.GetFaults();
    snapshot.phases = sources.phases.Get();
    snapshot.events = sources.changes.GetSince(0);
    snapshot.counters = CountersOf(sources.changes, output, server);
    snapshot.logLinesDropped = CountDroppedLogLines();
    snapshot.clock = ReadClocks();
    Complete(sources.services, output, onlyName, snapshot.services);
    Complete(sources.applications, output, onlyName, snapshot.applications);
    snapshot.usage = ReadProcessUsage(snapshot.pid).value_or(ProcessUsage{});
    return snapshot;
}

}  // namespace ProcMgr::Status
