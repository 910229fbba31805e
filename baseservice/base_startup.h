// The start of the base services of a YAML file in dependency order: a service is started after the
// services that it depends on, and start-up waits for the report of a service that has promised
// one. Runs once, on the start-up thread; no function of it is thread-safe.
#pragma once

#include <map>
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
    // All arguments must outlive this object. `reportedState` ends start-up: after its Stop() no
    // further service is started and every wait ends.
    BaseStartup(BaseServices& services, ReportedState& reportedState, BootCommandLine& commandLine);

    // Starts every service of the file at `path`; the outcome is only logged. The functions below
    // are its steps.
    void InitBaseApplication(const std::string& path);

    // Appends the manifests of the file to `manifests`, and to the names to be started those of its
    // services that the boot command line does not exclude. False when the file cannot be parsed,
    // or when a manifest has no name.
    bool ParseYamlFile(const std::string& path, std::vector<ApplicationManifest>& manifests);

    // Starts the service of `record`, unless the record has a process that is alive, and waits for
    // its report. False, with a log line, when the service could not be started.
    bool InitOneBaseApplication(App::BaseAppInfo& record);

    // Waits until supervision has restarted the services of `depends` that have ended or has given
    // them up. True when all of them are alive then.
    bool CheckDepends(const std::set<std::string>& depends, const std::string& name);

    // Waits until the service has reported RUNNING or TERMINATING, has ended, or start-up ends.
    // Always returns false; true is reserved for `start the service once more`.
    bool WaitBaseAppReport(const std::string& name);

    // Logs the flag and returns it. The place where start-up would switch on the hardware watchdog.
    static bool EnableWatchDog(bool flag);

private:
    // ABANDONED: start-up has been stopped, or a service of the graph has no manifest.
    enum class Outcome { ALL_STARTED, SOME_FAILED, ABANDONED };

    // Gives the services of the file to the status endpoint, when it is on.
    void MakePlan();
    // Tells it which services of the graph never get their turn.
    void NoteCycles(const DependGraph& graph);
    Outcome StartInOrder(DependGraph& graph);
    // Starts the services of one batch in the order of their names.
    Outcome StartBatch(const std::set<std::string>& batch);
    void LogReport(const std::string& name, ProcessState state) const;
    // Logs the names that a dependency cycle excludes.
    void LogBlocked(const std::set<std::string>& started) const;

    BaseServices& services_;
    ReportedState& reportedState_;
    BootCommandLine& commandLine_;
    ParseAndDepend parser_;  // keeps the manifests for the start graph
    // All are kept until the last batch: the records get pages of their own then, and the pages of
    // the manifests can be given back to the system.
    std::vector<ApplicationManifest> manifests_;
    std::map<std::string, const ApplicationManifest*> manifestsByName_;  // the first of each name
    std::vector<std::string> enabledNames_;  // to be started, in the order of the file
};

}  // namespace ProcMgr
