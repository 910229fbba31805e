// All about one service, for `pmctl status NAME`.
#include "pmctl/faults.h"
#include "pmctl/health.h"
#include "pmctl/people.h"
#include "pmctl/status_view.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t LABEL_COLUMNS = 13;

// Lines "label   value"; empty values are left out.
class Details {
public:
    explicit Details(size_t width) : width_(width) {}

    void Add(const std::string& label, const std::string& value) {
        if (!value.empty()) {
            text_ += Wrapped("  " + Padded(label, LABEL_COLUMNS - 2) + Printable(value), width_,
                             LABEL_COLUMNS) +
                     '\n';
        }
    }
    const std::string& Text() const { return text_; }

private:
    const size_t width_;
    std::string text_;
};

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

std::string Moment(const Clocks& clock, int64_t atNs) {
    return atNs == 0 ? "" : FormatAgo(clock, atNs) + " (" + FormatWall(clock, atNs) + ')';
}

std::string StateText(const Snapshot& snapshot, const Service& service) {
    const int64_t since = SinceNs(snapshot, service);
    if (since == 0) {
        return service.state;
    }
    return service.state + " for " + FormatAge(snapshot.clock, since) + " (since " +
           FormatWall(snapshot.clock, since) + ')';
}

std::string ProcessText(const Service& service) {
    if (service.pid == 0) {
        return "";
    }
    return "pid " + std::to_string(service.pid) + ", " + Counted(service.threads, "thread") + ", " +
           FormatKib(static_cast<double>(service.rssKib)) + ", " +
           FormatDuration(static_cast<double>(service.cpuMs) * NS_PER_MS) + " of CPU time";
}

std::string ReadinessText(const Service& service) {
    if (!service.isReporting) {
        return "";
    }
    return service.isReady ? "has reported that it is ready" : "reports when it is ready";
}

std::string StartsText(const Service& service) {
    const int64_t recent = service.restartsInLastMinute;
    return std::to_string(service.starts) +
           (recent > 0 ? ", " + Counted(recent, "restart") + " in the last minute" : "");
}

// From the moment at which the start-up knew the service.
std::string BootText(const Service& service) {
    if (!service.boot || service.boot->startedNs == 0) {
        return "";
    }
    const BootTimes& boot = *service.boot;
    const std::string waited =
        "waited " + FormatDuration(static_cast<double>(boot.startedNs - boot.waitingNs));
    if (boot.runningNs == 0) {
        const bool isStillStarting = service.starts == 1 && service.pid > 0;
        return waited + (isStillStarting ? ", does not run yet" : ", never ran");
    }
    return waited + ", took " +
           FormatDuration(static_cast<double>(boot.runningNs - boot.startedNs)) + " to run";
}

std::string GroupsText(const Service& service) {
    std::vector<std::string> groups;
    for (const auto& [kind, group] : service.groups) {
        groups.push_back(kind);
        groups.back().append(" ").append(group);
    }
    return Joined(groups);
}

std::string CoresText(const Service& service) {
    std::vector<std::string> cores;
    for (const int64_t core : service.cores) {
        cores.push_back(std::to_string(core));
    }
    return Joined(cores);
}

void AddSupervision(const Snapshot& snapshot, const Service& service, Details& details) {
    details.Add("state", StateText(snapshot, service));
    details.Add("why", service.why);
    for (const Fault* fault : FaultsOf(snapshot, service)) {
        details.Add("fault", DescribeFault(*fault));
    }
    details.Add("next", service.next);
    details.Add("process", ProcessText(service));
    details.Add("starts", StartsText(service));
    details.Add("last exit", service.lastExit ? FormatExit(snapshot.clock, *service.lastExit) : "");
    details.Add("ready", Moment(snapshot.clock, service.times.readyNs));
    details.Add("start-up", BootText(service));
}

void AddSettings(const Service& service, Details& details) {
    details.Add("owner", service.owner);
    details.Add("program", service.exec);
    details.Add("user",
                "uid " + std::to_string(service.uid) + ", gid " + std::to_string(service.gid));
    details.Add("restart", service.policy);
    details.Add("priority", service.priority >= 0 ? std::to_string(service.priority) : "");
    details.Add("readiness", ReadinessText(service));
    details.Add("heartbeat", service.hasHeartbeat ? "is watched" : "");
    details.Add("depends on", Joined(service.depends));
    details.Add("groups", GroupsText(service));
    details.Add("cores", CoresText(service));
    details.Add("output", service.output);
}

}  // namespace

std::string FormatExit(const Clocks& clock, const LastExit& lastExit) {
    return lastExit.text + ", " + FormatAgo(clock, lastExit.atNs) + ", process " +
           std::to_string(lastExit.pid) + (lastExit.isExpected ? ", expected" : ", not expected");
}

std::string FormatTail(const Service& service) {
    std::string text;
    for (const std::string& line : service.outputTail) {
        text += "    " + Printable(line) + '\n';
    }
    return text;
}

std::string FormatDetails(const Snapshot& snapshot, const Service& service, size_t width,
                          bool hasColours) {
    const Health health = HealthOf(snapshot, service);
    std::string text = Painted(hasColours, Ink::STRONG, Printable(service.name)) + ", " +
                       Printable(service.kind) + ": " +
                       Painted(hasColours, HealthInk(health), HealthName(health)) + '\n';
    Details details(width);
    AddSupervision(snapshot, service, details);
    AddSettings(service, details);
    text += details.Text();
    if (!service.outputTail.empty()) {
        text += "  last output\n" + FormatTail(service);
    }
    return text;
}

}  // namespace ProcMgr::Pmctl
