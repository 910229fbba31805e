// The start-up of the base services as the daemon remembers it: when each waited, started and
// became ready, and the path that decided how long it took.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pmctl/drawing.h"
#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// Times are nanoseconds from the begin of the start-up; -1 for what has not come.
struct BootEntry {
    const Service* service = nullptr;
    int64_t waiting = 0;
    int64_t released = -1;  // its dependencies were fulfilled, and it was its turn
    int64_t started = -1;
    int64_t ready = -1;
    int64_t ended = -1;  // its first process ended, or it could not be started
    bool isCritical = false;
    std::string reason;         // of the end
    std::string releasedBy;     // the service whose start or readiness it waited for last; "": none
    bool isDependency = false;  // whether it depends on that
};

struct BootModel {
    int64_t end = 0;                    // of the start-up, or the present while it goes on
    int64_t lastReady = -1;             // when the last one came to run
    bool isOver = false;                // the daemon has come to an end with all services
    std::vector<BootEntry> entries;     // in the order of the starts, then what was not started
    std::vector<std::string> critical;  // the critical path, from the begin
};

// The entries point into `snapshot`, which must outlive the model.
BootModel MakeBootModel(const Snapshot& snapshot);

// The same as a picture.
Timeline MakeTimeline(const BootModel& model);

// "Start-up of 12 services: 4.2 s until the last one ran"
std::string BootTitle(const BootModel& model);

}  // namespace ProcMgr::Pmctl
