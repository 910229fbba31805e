// Manifests, records and starts for the tests of this room.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/app_info.h"
#include "app/process_launcher.h"
#include "main/common/proc_files.h"
#include "platform/host/manifest_data.h"
#include "platform/manifest.h"

namespace ProcMgr::App {

// Moves a record to `state` by changes that its life cycle permits.
inline void MoveTo(AppInfo& app, ProcessState state) {
    if (app.GetState() != INITSTATE && app.GetState() != TERMINATED) {
        app.ChangeState(TERMINATED, ChangeReason::EXITED);
    }
    if (state == INITSTATE || state == app.GetState()) {
        return;
    }
    app.ChangeState(STARTING, ChangeReason::STARTED);
    if (state != STARTING) {
        app.ChangeState(RUNNING, ChangeReason::FOUND_RUNNING);
    }
    if (state == TERMINATING) {
        app.ChangeState(TERMINATING, ChangeReason::TERMINATION);
    } else if (state == TERMINATED) {
        app.ChangeState(TERMINATED, ChangeReason::EXITED);
    } else if (state == RESTARTING) {
        app.ChangeState(RESTARTING, ChangeReason::RESTART);
    }
}

inline ApplicationManifest Manifest(const ManifestData& data) {
    return ApplicationManifest(std::make_shared<const ManifestData>(data));
}

// A service named "svc" that ends at once.
inline ManifestData SomeService() {
    ManifestData data;
    data.name = "svc";
    data.bin = "/bin/true";
    data.coreAffinity = {0};  // the machine may not have the default cores
    return data;
}

// Does both stages of a start.
template <typename App>
bool StartNow(App& app, ProcessLauncher& launcher) {
    std::optional<LaunchPlan> plan = launcher.Prepare(app);
    return plan && app.StartProcess(launcher, *plan);
}

// The value of a key in the status file of a process; empty when the process does not exist.
inline std::string StatusValue(pid_t pid, std::string_view key) {
    const auto fields = ReadStatusFields(ProcPath(pid, "status"), std::array{key});
    return fields ? fields->front() : std::string();
}

}  // namespace ProcMgr::App
