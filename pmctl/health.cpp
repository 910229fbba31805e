#include "pmctl/health.h"

#include <algorithm>

#include "pmctl/faults.h"
#include "pmctl/find_name.h"

namespace ProcMgr::Pmctl {
namespace {

struct HealthRow {
    std::string_view name;
    Ink ink;
};
constexpr std::array<HealthRow, HEALTHS> ROWS{{
    {"running", Ink::GOOD},
    {"faulty", Ink::BAD},
    {"failed", Ink::BAD},
    {"blocked", Ink::BAD},
    {"starting", Ink::BUSY},
    {"waiting", Ink::BUSY},
    {"stopping", Ink::BUSY},
    {"stopped", Ink::QUIET},
    {"not started", Ink::QUIET},
}};

// The only reason for which a service is never started without anything being wrong.
constexpr std::string_view EXCLUDED = "excluded by the boot command line";

Health HealthWithProcess(const Snapshot& snapshot, const Service& service) {
    if (service.state == "RUNNING") {
        return FaultsOf(snapshot, service).empty() ? Health::RUNNING : Health::FAULTY;
    }
    return service.state == "TERMINATING" ? Health::STOPPING : Health::STARTING;
}

// A service without a process, about which the daemon will do something.
Health HealthInTransit(const Service& service) {
    if (service.state == "TERMINATING") {
        return Health::STOPPING;
    }
    const bool isBeforeItsTurn = service.boot && service.boot->releasedNs == 0;
    return service.state == "INITSTATE" && isBeforeItsTurn ? Health::WAITING : Health::STARTING;
}

// Whether the start or the last process has failed. Every end of a service under the policy
// on-failure is a failure: the daemon restarts it after each, and has given up.
bool HasFailed(const Snapshot& snapshot, const Service& service) {
    if (service.hasFailedStart) {
        return true;
    }
    // The fault stands after each unexpected end, also after a good one.
    if (!service.lastExit) {
        const auto faults = FaultsOf(snapshot, service);
        return std::any_of(faults.begin(), faults.end(),
                           [](const Fault* fault) { return fault->event == EVENT_START_FAILED; });
    }
    const bool hasGivenUp = service.kind == "service" && service.policy == "on-failure";
    return !service.lastExit->isExpected && (service.lastExit->status != 0 || hasGivenUp);
}

// A service without a process that will stay so.
Health HealthAtRest(const Snapshot& snapshot, const Service& service) {
    if (HasFailed(snapshot, service)) {
        return Health::FAILED;
    }
    if (service.state != "INITSTATE") {
        return Health::STOPPED;
    }
    // Applications are started when their owners want that.
    const bool isOnPurpose = service.kind == "application" || service.why == EXCLUDED ||
                             snapshot.daemon.phase == "stopping";
    return isOnPurpose ? Health::NOT_STARTED : Health::BLOCKED;
}

// The last change into the state that the service has.
int64_t LastChangeNs(const Snapshot& snapshot, const Service& service) {
    const auto found =
        std::find_if(snapshot.events.rbegin(), snapshot.events.rend(), [&](const Event& event) {
            return event.kind == service.kind && event.to == service.state &&
                   IsNameInEvent(event.name, service.name);
        });
    return found == snapshot.events.rend() ? 0 : found->atNs;
}

}  // namespace

std::string_view HealthName(Health health) {
    return ROWS[static_cast<size_t>(health)].name;
}

Ink HealthInk(Health health) {
    return ROWS[static_cast<size_t>(health)].ink;
}

// The state follows the end of a process a moment later.
Health HealthOf(const Snapshot& snapshot, const Service& service) {
    if (service.pid > 0) {
        return HealthWithProcess(snapshot, service);
    }
    return service.isSettled ? HealthAtRest(snapshot, service) : HealthInTransit(service);
}

bool IsRunning(Health health) {
    return health == Health::RUNNING || health == Health::FAULTY;
}

std::string RemarkOf(const Snapshot& snapshot, const Service& service) {
    std::string remark = service.why;
    for (const Fault* fault : FaultsOf(snapshot, service)) {
        // The reason says more than the fault of a failed start.
        if (fault->event != EVENT_START_FAILED || service.why.empty()) {
            remark += (remark.empty() ? "" : "; ") + fault->text;
        }
    }
    return remark;
}

std::array<size_t, HEALTHS> CountHealths(const Snapshot& snapshot) {
    std::array<size_t, HEALTHS> counts{};
    for (const auto* list : {&snapshot.services, &snapshot.applications}) {
        for (const Service& service : *list) {
            ++counts[static_cast<size_t>(HealthOf(snapshot, service))];
        }
    }
    return counts;
}

std::string HealthSummary(const Snapshot& snapshot) {
    const auto counts = CountHealths(snapshot);
    std::string text = std::to_string(counts[0]) + " running";
    for (size_t i = 1; i < HEALTHS; ++i) {
        if (counts[i] > 0) {
            text += ", " + std::to_string(counts[i]) + ' ' + std::string(ROWS[i].name);
        }
    }
    return text;
}

int64_t SinceNs(const Snapshot& snapshot, const Service& service) {
    const ServiceTimes& times = service.times;
    if (times.changedNs > 0) {
        return times.changedNs;
    }
    if (service.state == "RUNNING" && times.runningNs > 0) {
        return times.runningNs;
    }
    if (service.state == "STARTING") {
        return times.startedNs;
    }
    if (service.state == "TERMINATED") {
        return times.endedNs;
    }
    return service.state == "INITSTATE" ? times.waitingNs : LastChangeNs(snapshot, service);
}

int64_t DaemonBeginNs(const Snapshot& snapshot) {
    const auto& phases = snapshot.daemon.phases;
    return phases.empty() ? 0 : phases.front().atNs;
}

}  // namespace ProcMgr::Pmctl
