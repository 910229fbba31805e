// How a service is, in the words of pmctl: derived from its state, its last exit, its faults and
// whether the daemon will do anything about it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "pmctl/snapshot.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {

enum class Health {
    RUNNING,
    FAULTY,       // runs, but a fault of it stands
    FAILED,       // could not be started, or ended when nobody wanted it to, and stays so
    BLOCKED,      // will not be started, because of a cycle or of what it depends on
    STARTING,     // has a process that does not run yet, or gets a new one
    WAITING,      // will be started later
    STOPPING,     // its process is to end
    STOPPED,      // has ended as it was asked to, or has done its work
    NOT_STARTED,  // will not be started, on purpose
};
inline constexpr size_t HEALTHS = 9;

// "running", "not started".
std::string_view HealthName(Health health);
Ink HealthInk(Health health);

Health HealthOf(const Snapshot& snapshot, const Service& service);

// Whether a process does what it should, perhaps with a fault.
bool IsRunning(Health health);

// Why it does not run, and its faults: "exited with status 3", "heartbeat lost". Empty for a
// service that runs without any.
std::string RemarkOf(const Snapshot& snapshot, const Service& service);

// How many services and applications there are of each, by the number of the Health.
std::array<size_t, HEALTHS> CountHealths(const Snapshot& snapshot);
// "498 running, 2 failed".
std::string HealthSummary(const Snapshot& snapshot);

// Since when the service has its state; 0 when that is not known.
int64_t SinceNs(const Snapshot& snapshot, const Service& service);

// The moment at which the daemon started; 0 when it does not say so.
int64_t DaemonBeginNs(const Snapshot& snapshot);

}  // namespace ProcMgr::Pmctl
