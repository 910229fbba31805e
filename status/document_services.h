// The services and applications in a document.
#pragma once

#include "status/explanation.h"
#include "status/json_writer.h"
#include "status/snapshot.h"

namespace ProcMgr::Status {

// Nanoseconds of CLOCK_MONOTONIC; 0: never.
int64_t Nanoseconds(SteadyTime time);

// Write the members "services" and "applications".
void WriteServices(JsonWriter& json, const Snapshot& snapshot, const Explanation& explanation);
void WriteApplications(JsonWriter& json, const Snapshot& snapshot, const Explanation& explanation);

}  // namespace ProcMgr::Status
