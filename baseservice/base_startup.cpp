#include "baseservice/base_startup.h"

#include <chrono>
#include <memory>
#include <utility>

#include "app/app_spec.h"
#include "baseservice/start_order.h"
#include "main/common/boot_trace.h"
#include "main/common/clock.h"
#include "main/common/diagnostics.h"
#include "main/common/log.h"

namespace ProcMgr {
namespace {

constexpr std::chrono::milliseconds SETTLE_TIME{30};

}  // namespace

BaseStartup::BaseStartup(BaseServices& services, ReportedState& reportedState,
                         BootCommandLine& commandLine)
    : services_(services), reportedState_(reportedState), commandLine_(commandLine) {}

bool BaseStartup::ParseYamlFile(const std::string& path,
                                std::vector<ApplicationManifest>& manifests) {
    std::set<std::string> scratch;
    if (parser_.ParseYaml(0, path, manifests, scratch) != 0) {
        return false;
    }
    for (const ApplicationManifest& manifest : manifests) {
        const std::string name = manifest.GetAppName();
        if (name.empty()) {
            ProcMgrLog(LOG_ERR, "PROCMGR : ParseYamlFile : appName is NULL");
            return false;
        }
        if (IsStartedAtBoot(manifest, commandLine_)) {
            enabledNames_.push_back(name);
        }
    }
    commandLine_.ReportNotConfigured();
    return true;
}

void BaseStartup::InitBaseApplication(const std::string& path) {
    ProcMgrLog(LOG_INFO, "%s InitBaseApplication begin, yaml path=%s",
               BootStrace(BOOT_TRACE_TAG).c_str(), path.c_str());
    if (const FirstDiagnostic refusal; !ParseYamlFile(path, manifests_)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : ParseYamlFile failed, ProcMgr return");
        services_.NoteConfigError(refusal.Get());
        return;
    }
    for (const ApplicationManifest& manifest : manifests_) {
        // The hint saves the search while the names come in alphabetical order.
        manifestsByName_.try_emplace(manifestsByName_.end(), manifest.GetAppName(), &manifest);
    }
    MakePlan();
    DependGraph graph;
    const bool hasGraph = parser_.GetStartGraph(enabledNames_, graph) == 0;
    parser_ = {};  // the dependencies are in the graph now
    if (hasGraph) {
        NoteCycles(graph);
    } else {
        ProcMgrLog(LOG_ERR, "PROCMGR : no start order for the services of %s", path.c_str());
    }
    const Outcome outcome = hasGraph ? StartInOrder(graph) : Outcome::SOME_FAILED;
    services_.NoteStartUpEnd();
    if (outcome == Outcome::ABANDONED) {
        return;
    }
    manifestsByName_ = {};
    manifests_ = {};
    enabledNames_ = {};
    ProcMgrLog(LOG_INFO, "%s InitBaseApplication end", BootStrace(BOOT_TRACE_TAG).c_str());
    SleepFor(SETTLE_TIME);
    if (EnableWatchDog(outcome == Outcome::ALL_STARTED)) {
        WriteBootTracePoint(POINT_ALL_STARTED);
    }
}

void BaseStartup::MakePlan() {
    App::ChangeLog* const log = services_.GetChangeLog();
    if (log == nullptr) {
        return;
    }
    const std::set<std::string> enabled(enabledNames_.begin(), enabledNames_.end());
    const SteadyTime now = std::chrono::steady_clock::now();
    BootPlan plan;
    for (const ApplicationManifest& manifest : manifests_) {
        if (manifest.GetManifestList() != ManifestList::SERVICES) {
            continue;
        }
        auto facts = std::make_shared<const App::AppFacts>(manifest);
        const bool isEnabled = enabled.contains(facts->name);
        auto history =
            std::make_shared<App::AppHistory>(App::AppKind::BASE, std::move(facts), *log);
        history->NoteWaiting(now);
        plan.Add(std::move(history), isEnabled ? StartVerdict::WAITING : StartVerdict::EXCLUDED);
    }
    services_.SetPlan(std::move(plan));
}

void BaseStartup::NoteCycles(const DependGraph& graph) {
    if (services_.GetChangeLog() == nullptr) {
        return;
    }
    DependGraph rest = graph;
    std::set<std::string> blocked(enabledNames_.begin(), enabledNames_.end());
    for (auto batch = NextBatch(rest); !batch.empty(); batch = NextBatch(rest)) {
        for (const std::string& name : batch) {
            rest.Pop(name);
            blocked.erase(name);
        }
    }
    services_.NoteCycles(blocked);
}

BaseStartup::Outcome BaseStartup::StartInOrder(DependGraph& graph) {
    Outcome result = Outcome::ALL_STARTED;
    std::set<std::string> worked;
    while (!graph.IsEmpty()) {
        const std::set<std::string> batch = NextBatch(graph);
        if (batch.empty()) {
            LogBlocked(worked);
            return Outcome::SOME_FAILED;
        }
        const Outcome outcome = StartBatch(batch);
        if (outcome == Outcome::ABANDONED) {
            return outcome;
        }
        if (outcome == Outcome::SOME_FAILED) {
            result = outcome;
        }
        // Services that have failed are removed, too: a service that depends on one of them fails
        // at its dependency check.
        for (const std::string& name : batch) {
            graph.Pop(name);
        }
        worked.insert(batch.begin(), batch.end());
    }
    // A stop during the wait for the last service does not show in the result of its batch.
    return reportedState_.IsStopped() ? Outcome::ABANDONED : result;
}

BaseStartup::Outcome BaseStartup::StartBatch(const std::set<std::string>& batch) {
    Outcome result = Outcome::ALL_STARTED;
    for (const std::string& name : batch) {
        if (reportedState_.IsStopped()) {
            return Outcome::ABANDONED;
        }
        const auto manifest = manifestsByName_.find(name);
        if (manifest == manifestsByName_.end()) {
            ProcMgrLog(LOG_ERR, "PROCMGR : can't find %s", name.c_str());
            return Outcome::ABANDONED;
        }
        App::BaseAppInfo record(*manifest->second);
        record.history_ = services_.GetHistory(name);
        if (!InitOneBaseApplication(record)) {
            ProcMgrLog(LOG_ERR, "process-manager cur time:%s, start baseApp=%s failed",
                       BootStrace(BOOT_TRACE_TAG).c_str(), name.c_str());
            result = Outcome::SOME_FAILED;
        }
    }
    return result;
}

bool BaseStartup::InitOneBaseApplication(App::BaseAppInfo& record) {
    const std::string& name = record.appName_;
    if (record.IsAlive()) {
        ProcMgrLog(LOG_WARNING, "PROCMGR=%s is already running", name.c_str());
        return true;
    }
    if (!CheckDepends(record.dependList_, name)) {
        services_.NoteBlocked(name);
        return false;
    }
    services_.NoteReleased(name);
    if (!services_.Start(record) || !services_.Announce(record)) {
        return false;
    }
    if (record.isReporting_) {
        WaitBaseAppReport(name);
    }
    return true;
}

bool BaseStartup::CheckDepends(const std::set<std::string>& depends, const std::string& name) {
    for (;;) {
        const uint64_t seen = reportedState_.GetChanges();
        if (reportedState_.IsStopped() || !services_.IsAnyUndecided(depends)) {
            return services_.CheckDepends(depends, name);
        }
        reportedState_.WaitForChangeSince(seen);
    }
}

bool BaseStartup::WaitBaseAppReport(const std::string& name) {
    constexpr bool RETRY = false;
    for (;;) {
        // The counter is read before the state: a change in between ends the wait below.
        const uint64_t seen = reportedState_.GetChanges();
        if (reportedState_.IsStopped()) {
            return RETRY;
        }
        // A service that is no longer in the list has ended and cannot report any more.
        const ProcessState state = services_.GetState(name).value_or(TERMINATED);
        if (state == RUNNING || state == TERMINATING || state == TERMINATED) {
            LogReport(name, state);
            return RETRY;
        }
        ProcMgrLog(LOG_INFO,
                   "PROCMGR: waiting for baseApp=%s reported state, RUNNING OR TERMINATING.",
                   name.c_str());
        reportedState_.WaitForChangeSince(seen);
    }
}

void BaseStartup::LogReport(const std::string& name, ProcessState state) const {
    if (state == RUNNING && name == PROC_ZORNMGR) {
        WriteBootTracePoint(POINT_ZORNMGR_READY);
    }
    if (state == RUNNING && name == PROC_VINTOR) {
        WriteBootTracePoint(POINT_VINTOR_READY);
    }
    const std::string stamp = BootStrace(BOOT_TRACE_TAG);
    if (state == RUNNING) {
        ProcMgrLog(LOG_INFO, "%s InitBaseApp:%s success, report RUNNING!", stamp.c_str(),
                   name.c_str());
    } else if (state == TERMINATING) {
        ProcMgrLog(LOG_WARNING, "%s InitBaseApp:%s report TERMINATING!", stamp.c_str(),
                   name.c_str());
    } else {
        ProcMgrLog(LOG_WARNING, "%s InitBaseApp:%s has been %u!", stamp.c_str(), name.c_str(),
                   static_cast<unsigned>(state));
    }
}

void BaseStartup::LogBlocked(const std::set<std::string>& started) const {
    std::string names;
    for (const std::string& name : enabledNames_) {
        if (!started.contains(name)) {
            names += names.empty() ? name : ", " + name;
        }
    }
    ProcMgrLog(LOG_ERR, "PROCMGR : these services wait for each other and are not started: %s",
               names.c_str());
}

bool BaseStartup::EnableWatchDog(bool flag) {
    ProcMgrLog(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=%d", flag);
    return flag;
}

}  // namespace ProcMgr
