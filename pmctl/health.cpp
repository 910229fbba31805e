#include "pmctl/health.h"

#include <algorithm>

#include "pmctl/find_name.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr int64_t EVENT_START_FAILED = 208;

struct HealthRow {
    std::string_view name;
    Ink ink;
};
constexpr std::array<HealthRow, HEALTHS> ROWS{{
    {"running", Ink::GOOD},
    {"failed", Ink::BAD},
    {"starting", Ink::BUSY},
    {"waiting", Ink::BUSY},
    {"stopping", Ink::BUSY},
    {"stopped", Ink::QUIET},
    {"not started", Ink::QUIET},
}};

bool HasFailedStart(const Snapshot& snapshot, const Service& service) {
    return service.hasFailedStart ||
           std::any_of(snapshot.faults.begin(), snapshot.faults.end(), [&](const Fault& fault) {
               return fault.event == EVENT_START_FAILED && fault.name == service.name;
           });
}

// A service without a process.
Health HealthWithoutProcess(const Snapshot& snapshot, const Service& service) {
    const bool hasDied = service.lastExit && !service.lastExit->isExpected;
    if (hasDied || HasFailedStart(snapshot, service)) {
        return Health::FAILED;
    }
    if (!service.isSettled) {
        return Health::WAITING;
    }
    return service.state == "INITSTATE" ? Health::NOT_STARTED : Health::STOPPED;
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

Health HealthOf(const Snapshot& snapshot, const Service& service) {
    if (service.state == "RESTARTING") {
        return Health::STARTING;
    }
    // The state follows the end of a process a moment later.
    if (service.pid == 0) {
        return HealthWithoutProcess(snapshot, service);
    }
    if (service.state == "RUNNING") {
        return Health::RUNNING;
    }
    return service.state == "TERMINATING" ? Health::STOPPING : Health::STARTING;
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
