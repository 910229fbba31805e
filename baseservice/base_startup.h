// The start of the base services: the services of a YAML file, in dependency order, each after the
// ones it depends on; a service that promises to report itself is waited for. Runs once, on the
// start-up thread.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "baseservice/base_services.h"
#include "baseservice/reported_state.h"
#include "config/boot_command_line.h"
#include "platform/manifest.h"

namespace ProcMgr {

class BaseStartup {
public:
    // `isStopping` ends start-up between two services and any wait for a report; whoever makes it
    // true notifies `reportedState`. All references must outlive this object.
    BaseStartup(BaseServices& services, ReportedState& reportedState, BootCommandLine& commandLine,
                std::function<bool()> isStopping);

    // Starts every service of the file at `path`. Logs its outcome.
    void InitBaseApplication(const std::string& path);

    // Appends the manifests of the file to `manifests` and the names of its services, but of those
    // that the boot command line would have to ask for and does not, to the list of what is to be
    // started. False when the file is unusable or a name is empty.
    bool ParseYamlFile(const std::string& path, std::vector<ApplicationManifest>& manifests);

    // Starts one service and waits for its report. True when it is running or was already.
    bool InitOneBaseApplication(App::BaseAppInfo& record);

    bool CheckDepends(const std::set<std::string>& depends, const std::string& name);

    // Waits until the service has reported RUNNING or TERMINATING or is gone. Returns whether to
    // start it once more: never.
    bool WaitBaseAppReport(const std::string& name);

    // Logs the flag and returns it.
    static bool EnableWatchDog(bool flag);

private:
    enum class Outcome { ALL_STARTED, SOME_FAILED, ABANDONED };

    Outcome StartInOrder(DependGraph& graph);
    // Starts the names of one batch. ABANDONED when one of them has no manifest.
    Outcome StartBatch(const std::set<std::string>& batch);
    void LogReport(const std::string& name, ProcessState state) const;
    void LogBlocked(const std::set<std::string>& started) const;

    BaseServices& services_;
    ReportedState& reportedState_;
    BootCommandLine& commandLine_;
    const std::function<bool()> isStopping_;
    std::vector<ApplicationManifest> manifests_;  // emptied once all have been worked through
    std::vector<std::string> enabledNames_;
};

}  // namespace ProcMgr
