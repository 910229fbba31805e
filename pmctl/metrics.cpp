// pmctl metrics: the figures of the daemon and its services as OpenMetrics text.
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pmctl/ask.h"
#include "pmctl/health.h"
#include "pmctl/online.h"
#include "pmctl/people.h"
#include "pmctl/status_view.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

constexpr std::array STATES = {"INITSTATE",   "STARTING",   "RUNNING",
                               "TERMINATING", "TERMINATED", "RESTARTING"};
constexpr std::array PHASES = {
    "main",          "init",          "priority-apps", "waiting-continue",
    "continue-init", "base-services", "running",       "stopping"};
constexpr double MS_PER_S = 1000;
constexpr double KIB = 1024;

// The escapes of the format; other control characters are shown as on a terminal, because the
// format has no escape for them.
std::string EscapedLabel(std::string_view text) {
    std::string escaped;
    for (;;) {
        const size_t end = text.find('\n');
        for (const char c : Printable(text.substr(0, end))) {
            escaped += c == '\\' || c == '"' ? "\\" : "";
            escaped += c;
        }
        if (end == std::string_view::npos) {
            return escaped;
        }
        escaped += "\\n";
        text.remove_prefix(end + 1);
    }
}

std::string Figure(double value) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.15g", value);
    return text.data();
}

// Writes families, each with its description before its samples.
class Metrics {
public:
    explicit Metrics(std::ostream& out) : out_(out) {}

    // `unit`: the last word of the name, or empty. Samples of the family follow.
    void Begin(const std::string& name, const char* type, const char* unit, const char* help) {
        name_ = "procmgr_" + name;
        suffix_ = type == std::string_view("counter") ? "_total"
                  : type == std::string_view("info")  ? "_info"
                                                      : "";
        out_ << "# TYPE " << name_ << ' ' << type << '\n';
        if (unit[0] != '\0') {
            out_ << "# UNIT " << name_ << ' ' << unit << '\n';
        }
        out_ << "# HELP " << name_ << ' ' << help << '\n';
    }
    void Add(const Labels& labels, double value) {
        out_ << name_ << suffix_;
        char separator = '{';
        for (const auto& [key, text] : labels) {
            out_ << separator << key << "=\"" << EscapedLabel(text) << '"';
            separator = ',';
        }
        out_ << (labels.empty() ? " " : "} ") << Figure(value) << '\n';
    }
    // One of `values` is set: the label with the family's name says which.
    template <size_t N>
    void AddSet(Labels labels, const std::array<const char*, N>& values, std::string_view present) {
        labels.emplace_back(name_, "");
        for (const char* value : values) {
            labels.back().second = value;
            Add(labels, value == present ? 1 : 0);
        }
    }

private:
    std::ostream& out_;
    std::string name_;
    const char* suffix_ = "";
};

Labels LabelsOf(const Service& service) {
    return {{"name", service.name}, {"kind", service.kind}};
}

void WriteDaemon(const Snapshot& snapshot, Metrics& metrics) {
    const DaemonStatus& daemon = snapshot.daemon;
    metrics.Begin("build", "info", "", "Version of the daemon");
    metrics.Add({{"version", daemon.version}}, 1);
    metrics.Begin("phase", "stateset", "", "Phase of the daemon");
    metrics.AddSet({}, PHASES, daemon.phase);
    const int64_t begin = DaemonBeginNs(snapshot);
    if (begin > 0) {
        const int64_t wall = snapshot.clock.realtimeNs - (snapshot.clock.monotonicNs - begin);
        metrics.Begin("start_time_seconds", "gauge", "seconds",
                      "Start of the daemon, seconds since 1970");
        metrics.Add({}, static_cast<double>(wall) / NS_PER_S);
    }
    metrics.Begin("cpu_seconds", "counter", "seconds", "Processor time of the daemon");
    metrics.Add({}, static_cast<double>(daemon.cpuMs) / MS_PER_S);
    metrics.Begin("memory_bytes", "gauge", "bytes", "Resident memory of the daemon");
    metrics.Add({}, static_cast<double>(daemon.rssKib) * KIB);
    metrics.Begin("threads", "gauge", "", "Threads of the daemon");
    metrics.Add({}, static_cast<double>(daemon.threads));
    metrics.Begin("log_lines_dropped", "counter", "", "Dropped log lines of the daemon");
    metrics.Add({}, static_cast<double>(daemon.logLinesDropped));
}

void WriteCounters(const Counters& counters, Metrics& metrics) {
    for (const CounterField& field : COUNTER_FIELDS) {
        metrics.Begin(field.key, "counter", "", field.meaning);
        metrics.Add({}, static_cast<double>(counters.*field.value));
    }
}

// One family: a value for each service that has one.
struct ServiceFamily {
    const char* name;
    const char* type;
    const char* unit;
    const char* help;
    bool (*has)(const Service&);
    double (*value)(const Service&);
};

bool Always(const Service& /*service*/) {
    return true;
}
bool HasProcess(const Service& service) {
    return service.pid > 0;
}
bool HasExit(const Service& service) {
    return service.lastExit.has_value();
}

// The exit code, or 128 and the number of the signal, as a shell has it.
double ExitCode(const Service& service) {
    const auto status = static_cast<int>(service.lastExit->status);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

const std::array SERVICE_FAMILIES = {
    ServiceFamily{"service_ready", "gauge", "", "Whether the service has reported that it is ready",
                  Always, [](const Service& s) { return s.isReady ? 1.0 : 0.0; }},
    ServiceFamily{"service_starts", "counter", "", "Processes started for the service", Always,
                  [](const Service& s) { return static_cast<double>(s.starts); }},
    ServiceFamily{"service_cpu_seconds", "counter", "seconds", "Processor time of its process",
                  HasProcess,
                  [](const Service& s) { return static_cast<double>(s.cpuMs) / MS_PER_S; }},
    ServiceFamily{"service_memory_bytes", "gauge", "bytes", "Resident memory of its process",
                  HasProcess, [](const Service& s) { return static_cast<double>(s.rssKib) * KIB; }},
    ServiceFamily{"service_threads", "gauge", "", "Threads of its process", HasProcess,
                  [](const Service& s) { return static_cast<double>(s.threads); }},
    ServiceFamily{"service_last_exit_status", "gauge", "",
                  "Exit status of its last process; 128 and the signal that has ended it", HasExit,
                  ExitCode},
};

void WriteServices(const Snapshot& snapshot, Metrics& metrics) {
    const std::vector<const Service*> all = AllOf(snapshot);
    metrics.Begin("service_state", "stateset", "", "State of the service");
    for (const Service* service : all) {
        metrics.AddSet(LabelsOf(*service), STATES, service->state);
    }
    for (const ServiceFamily& family : SERVICE_FAMILIES) {
        metrics.Begin(family.name, family.type, family.unit, family.help);
        for (const Service* service : all) {
            if (family.has(*service)) {
                metrics.Add(LabelsOf(*service), family.value(*service));
            }
        }
    }
}

void WritePipeFamily(const Snapshot& snapshot, const char* name, const char* help,
                     int64_t Pipe::*value, Metrics& metrics) {
    metrics.Begin(name, "gauge", "", help);
    for (const Pipe& pipe : snapshot.pipes) {
        metrics.Add({{"owner", pipe.owner}}, static_cast<double>(pipe.*value));
    }
}

void WritePipesAndFaults(const Snapshot& snapshot, Metrics& metrics) {
    metrics.Begin("pipe_open", "gauge", "", "Whether the pipe of the owner is open");
    for (const Pipe& pipe : snapshot.pipes) {
        metrics.Add({{"owner", pipe.owner}}, pipe.isOpen ? 1 : 0);
    }
    WritePipeFamily(snapshot, "pipe_queued_reports", "Reports that wait for the owner",
                    &Pipe::queuedReports, metrics);
    WritePipeFamily(snapshot, "pipe_queued_states", "States and answers in these reports",
                    &Pipe::queuedStates, metrics);
    WritePipeFamily(snapshot, "pipe_missed", "Applications whose last state the owner has missed",
                    &Pipe::missed, metrics);
    metrics.Begin("fault", "gauge", "", "Faults that are raised");
    for (const Fault& fault : snapshot.faults) {
        metrics.Add(
            {{"node", fault.node}, {"name", fault.name}, {"event", std::to_string(fault.event)}},
            1);
    }
}

}  // namespace

void ShowMetrics(const Context& context) {
    RefuseJson(context, "metrics");
    const Snapshot snapshot = AskStatus(context).snapshot;
    Metrics metrics(context.out);
    WriteDaemon(snapshot, metrics);
    WriteCounters(snapshot.counters, metrics);
    WriteServices(snapshot, metrics);
    WritePipesAndFaults(snapshot, metrics);
    context.out << "# EOF\n";
}

}  // namespace ProcMgr::Pmctl
