// Snapshots for the tests of the documents, built by hand.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/host/manifest_data.h"
#include "status/snapshot.h"

namespace ProcMgr::Status {

inline SteadyTime At(int64_t nanoseconds) {
    return SteadyTime(std::chrono::nanoseconds(nanoseconds));
}

inline ManifestData Manifest(const std::string& name, bool isReporting = false) {
    ManifestData data;
    data.name = name;
    data.bin = "/bin/" + name;
    data.reporting = isReporting;
    return data;
}

// A base service that runs as `pid`, or has no process.
inline Entry Service(const ManifestData& data, ProcessState state, int32_t pid = 0) {
    Entry entry;
    entry.view.app.facts = std::make_shared<const App::AppFacts>(
        ApplicationManifest(std::make_shared<const ManifestData>(data)));
    entry.view.app.state = state;
    entry.view.app.pid = pid;
    entry.view.app.isInList = true;
    entry.view.verdict = StartVerdict::RELEASED;
    return entry;
}

}  // namespace ProcMgr::Status
