// Manifests, records and starts for the tests of this room.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/base_app_info.h"
#include "app/general_app_info.h"
#include "app/process_launcher.h"
#include "main/common/proc_files.h"
#include "platform/host/manifest_data.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::App {

using Fakes::LogCapture;
using Fakes::LogLine;
using Lines = std::vector<LogLine>;

constexpr int32_t EXIT_1 = 1 << 8;  // a wait status

// Puts a new record into `state`, whatever its life cycle permits.
inline void MoveTo(AppInfo& app, ProcessState state) {
    app.ChangeState(state, ChangeReason::STARTED);
    LogCapture::Clear();  // of the line about a change that is not permitted
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

inline GeneralAppInfo GeneralApp(const ManifestData& data = SomeService(),
                                 const std::string& owner = "EM") {
    return GeneralAppInfo("svc", Manifest(data), owner);
}

// The value of a key in the status file of a process; empty when the process does not exist.
inline std::string StatusValue(pid_t pid, std::string_view key) {
    const auto fields = ReadStatusFields(ProcPath(pid, "status"), std::array{key});
    return fields ? fields->front() : std::string();
}

// The fixture of tests of records and their starts.
class AppTest : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }

    // Does both stages of a start.
    template <typename App>
    bool StartNow(App& app) {
        std::optional<LaunchPlan> plan = launcher_.Prepare(app);
        return plan && app.StartProcess(launcher_, *plan);
    }

    ProcessLauncher launcher_{CgroupMgr::GetInstance(), CoreAffinityMgr::GetInstance(),
                              BindCount::GetInstance()};
};

}  // namespace ProcMgr::App
