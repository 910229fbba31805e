// The JSON documents that pmctl itself makes. Each has "version": 1; fields may be added later.
#pragma once

#include <string>
#include <vector>

#include "pmctl/boot_model.h"
#include "pmctl/process_tree.h"
#include "pmctl/reasons.h"
#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

struct ServiceProcesses {
    const Service* service = nullptr;
    std::vector<Process> below;
};

std::string TreeJson(const Snapshot& snapshot, const std::vector<ServiceProcesses>& services);

// One event as an object, with "realtime_ns" beside the fields of the daemon.
std::string EventJson(const Clocks& clock, const Event& event);
std::string EventsJson(const Clocks& clock, const std::vector<Event>& events);

// What is to be read of the followed events beside them: events were lost, or another daemon has
// taken the place of the one before.
std::string MissedJson(int64_t count);
std::string NewDaemonJson(int64_t pid);

// Why a service is what it is.
struct WhyEntry {
    Service service;
    std::vector<Blocker> blockers;
};
// The first entry, with the other ones of the same name in "also".
std::string WhyJson(const Snapshot& snapshot, const std::vector<WhyEntry>& entries);

// In place of a document that could not be had.
std::string ErrorJson(const std::string& text);

// Times are milliseconds from the begin of the start-up, null for what has not come.
std::string BootJson(const BootModel& model);

}  // namespace ProcMgr::Pmctl
