#include "status/document.h"

#include <chrono>
#include <utility>

#include "message/enum_names.h"
#include "status/document_services.h"
#include "status/explanation.h"
#include "status/json_writer.h"
#include "status/words.h"

namespace ProcMgr::Status {
namespace {

// Fields may be added to the documents of a version; none is removed or changes its meaning.
constexpr int VERSION = 1;

void WriteClock(JsonWriter& json, const ClockPair& clock) {
    json.OpenObject("clock");
    json.Member("monotonic_ns", Nanoseconds(clock.steady));
    json.Member("realtime_ns", clock.realtimeNs);
    json.CloseObject();
}

// Since the daemon entered its first phase.
int64_t UptimeMs(const Snapshot& snapshot) {
    if (snapshot.phases.empty()) {
        return 0;
    }
    const auto uptime = snapshot.clock.steady - snapshot.phases.front().at;
    return std::chrono::duration_cast<std::chrono::milliseconds>(uptime).count();
}

void WriteDaemon(JsonWriter& json, const Snapshot& snapshot) {
    json.OpenObject("daemon");
    json.Member("version", snapshot.daemon.version);
    json.Member("pid", snapshot.pid);
    json.Member("config", snapshot.daemon.config);
    json.Member("config_error", snapshot.configError);
    json.Member("quick_start", snapshot.daemon.isQuickStart);
    json.Member("phase", snapshot.phases.empty() ? "" : NameOf(snapshot.phases.back().phase));
    json.OpenArray("phases");
    for (const StartupPhases::Entered& entered : snapshot.phases) {
        json.OpenObject();
        json.Member("name", NameOf(entered.phase));
        json.Member("at_ns", Nanoseconds(entered.at));
        json.CloseObject();
    }
    json.CloseArray();
    json.Member("uptime_ms", UptimeMs(snapshot));
    json.Member("cpu_ms", snapshot.usage.cpuMs);
    json.Member("rss_kib", snapshot.usage.rssKib);
    json.Member("threads", snapshot.usage.threads);
    json.Member("log_lines_dropped", snapshot.logLinesDropped);
    json.CloseObject();
}

void WriteCounters(JsonWriter& json, const Counters& counters) {
    json.OpenObject("counters");
    json.Member("starts", counters.starts);
    json.Member("start_failures", counters.startFailures);
    json.Member("exits", counters.exits);
    json.Member("unknown_exits", counters.unknownExits);
    json.Member("state_changes", counters.stateChanges);
    json.Member("status_requests", counters.server.requests);
    json.Member("status_clients_refused", counters.server.refused);
    json.Member("status_clients_dropped", counters.server.dropped);
    json.Member("output_lines_dropped", counters.outputLinesDropped);
    json.CloseObject();
}

void WritePipes(JsonWriter& json, const std::vector<PipeEntry>& pipes) {
    json.OpenArray("pipes");
    for (const PipeEntry& pipe : pipes) {
        json.OpenObject();
        json.Member("owner", pipe.owner);
        json.Member("pid", pipe.pid);
        json.Member("open", pipe.isOpen);
        json.Member("queued_reports", pipe.queuedReports);
        json.Member("queued_states", pipe.queuedStates);
        json.Member("missed", pipe.missed);
        json.CloseObject();
    }
    json.CloseArray();
}

void WriteFaults(JsonWriter& json,
                 const std::vector<App::SensorNodeEventReporter::FaultView>& faults) {
    json.OpenArray("faults");
    for (const auto& fault : faults) {
        json.OpenObject();
        json.Member("node", fault.node);
        json.Member("name", fault.app);
        json.Member("event", fault.event);
        json.Member("text", DescribeFault(fault.event));
        json.CloseObject();
    }
    json.CloseArray();
}

void WriteEvent(JsonWriter& json, const App::ChangeLog::Entry& event) {
    const App::StateChange& change = event.change;
    const bool isExit = change.reason == App::ChangeReason::EXITED;
    json.OpenObject();
    json.Member("number", event.number);
    json.Member("at_ns", Nanoseconds(event.at));
    json.Member("kind", event.kind == App::AppKind::BASE ? "service" : "application");
    json.Member("name", event.GetName());
    json.Member("pid", event.pid);
    json.Member("from", GetProcessStateStr(change.from));
    json.Member("to", GetProcessStateStr(change.to));
    json.Member("cause", NameOf(change.reason));
    json.Member("detail", isExit ? DescribeExit(event.exitStatus) : "");
    json.CloseObject();
}

void WriteEventList(JsonWriter& json, const std::vector<App::ChangeLog::Entry>& events) {
    json.OpenArray("events");
    for (const App::ChangeLog::Entry& event : events) {
        WriteEvent(json, event);
    }
    json.CloseArray();
}

JsonWriter BeginDocument() {
    JsonWriter json;
    json.OpenObject();
    json.Member("version", VERSION);
    return json;
}

std::string EndDocument(JsonWriter& json) {
    json.CloseObject();
    return json.Take() + "\n";
}

}  // namespace

std::string WriteDocument(const Snapshot& snapshot) {
    const Explanation explanation(snapshot);
    JsonWriter json = BeginDocument();
    WriteClock(json, snapshot.clock);
    WriteDaemon(json, snapshot);
    WriteCounters(json, snapshot.counters);
    WriteServices(json, snapshot, explanation);
    WriteApplications(json, snapshot, explanation);
    WritePipes(json, snapshot.pipes);
    WriteFaults(json, snapshot.faults);
    WriteEventList(json, snapshot.events);
    return EndDocument(json);
}

std::string WriteEvents(const ClockPair& clock, int32_t pid,
                        const std::vector<App::ChangeLog::Entry>& events) {
    JsonWriter json = BeginDocument();
    WriteClock(json, clock);
    json.OpenObject("daemon");
    json.Member("pid", pid);
    json.CloseObject();
    WriteEventList(json, events);
    return EndDocument(json);
}

std::string WriteError() {
    JsonWriter json = BeginDocument();
    json.Member("error", "unknown request");
    return EndDocument(json);
}

}  // namespace ProcMgr::Status
