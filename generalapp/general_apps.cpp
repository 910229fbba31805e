#include "generalapp/general_apps.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>
#include <utility>

#include "app/app_spec.h"
#include "main/common/log.h"

namespace ProcMgr {

using App::GeneralAppInfo;
using Message::AppStateInfo;

GeneralApps::GeneralApps(App::ProcessLauncher& launcher, CheckRequests& checks,
                         App::StateReports& reports, App::SensorNodeEventReporter& faults,
                         const StartupConfig& config, OwnerServices& owners)
    : launcher_(launcher),
      checks_(checks),
      reports_(reports),
      faults_(faults),
      config_(config),
      changeReports_(reports, owners) {}

GeneralApps::Record GeneralApps::Find(const std::string& name) const {
    const auto entry = generalAppMap_.find(name);
    return entry == generalAppMap_.end() ? nullptr : entry->second;
}

bool GeneralApps::IsInMap(const Record& record) const {
    return Find(record->appName_) == record;
}

void GeneralApps::UpdateAllGeneralAppMap() {
    const uint64_t revision = config_.GetRevision();
    if (revision == seenRevision_) {
        return;
    }
    for (const auto& [name, app] : generalAppMap_) {
        if (const auto manifest = config_.Find(name)) {
            app->Refresh(*manifest);
        }
    }
    seenRevision_ = revision;
}

GeneralApps::Record GeneralApps::GetGeneralApp(const std::string& name, const std::string& owner) {
    UpdateAllGeneralAppMap();
    if (Record running = Find(name)) {
        return running;
    }
    if (const auto manifest = config_.Find(name)) {
        const bool isPriority = manifest->GetStartupPriority() != App::AppSpec::NO_PRIORITY;
        return std::make_shared<GeneralAppInfo>(name, *manifest, isPriority ? PROC_ZORNMGR : owner);
    }
    ProcMgrLog(LOG_ERR, "PROCMGR : GetGeneralApp failed: app=%s", name.c_str());
    return nullptr;
}

std::optional<App::LaunchPlan> GeneralApps::Prepare(const GeneralAppInfo& copy) {
    try {
        return launcher_.Prepare(copy);
    } catch (const std::exception& error) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the start of app=%s cannot be prepared, %s",
                   copy.appName_.c_str(), error.what());
        return std::nullopt;
    }
}

GeneralApps::Launch GeneralApps::BeginLaunch(const Record& record, App::AppSpec spec,
                                             const std::string& owner) {
    record->owner_ = spec.IsPriority() ? PROC_ZORNMGR : owner;
    record->TakeSpec(std::move(spec));
    NoteLaunch(*record);
    Launch launch{record, *record};
    due_.Reserve(generalAppMap_.size() + 1);
    generalAppMap_.try_emplace(record->appName_, record);
    record->isLaunching_ = true;
    return launch;
}

bool GeneralApps::FinishLaunch(const Record& record, std::optional<App::LaunchPlan> plan) {
    record->isLaunching_ = false;
    checks_.Request();
    const bool isStarted = TryStart(*record, std::move(plan));
    if (!isStarted) {
        record->asker_.clear();  // it gets an answer; the next change is no business of it
    }
    if (!isStarted && record->GetState() == INITSTATE) {
        due_.Drop(*record);
        generalAppMap_.erase(record->appName_);
    } else {
        due_.Add(*record);
    }
    return isStarted;
}

bool GeneralApps::TryStart(GeneralAppInfo& app, std::optional<App::LaunchPlan> plan) {
    try {
        processes_.Reserve();
        if (!plan || isStopping_ || !app.StartProcess(launcher_, *plan)) {
            return false;
        }
    } catch (const std::bad_alloc&) {
        ProcMgrLog(LOG_ERR, "PROCMGR : out of memory before the start of app=%s",
                   app.appName_.c_str());
        return false;
    }
    processes_.Add(app);
    return true;
}

bool GeneralApps::SetExitStatus(int32_t pid, int32_t status) {
    bool isYoung = false;
    {
        const LockGuard lock(mutex_);
        GeneralAppInfo* app = processes_.Take(pid);
        if (app == nullptr) {
            return false;
        }
        app->SetExitStatus(status);
        due_.AddEnded(*app);
        launcher_.Release(*app);
        isYoung = std::chrono::steady_clock::now() - app->startTime_ <= CHECK_PERIOD;
    }
    // Without the lock, because the threads that wake up here take it.
    isYoung ? checks_.Request() : checks_.RequestNow();
    exited_.NotifyAll();
    return true;
}

void GeneralApps::ReportHeldBack() {
    {
        const LockGuard lock(mutex_);
        changeReports_.QueueHeldBack();
    }
    reports_.Flush();
}

bool GeneralApps::Visit(const App::RecordVisitor& visitor) {
    const LockGuard lock(mutex_);
    if (visitor.GetPid()) {
        GeneralAppInfo* app = processes_.Find(*visitor.GetPid());
        return app != nullptr && visitor(*app);
    }
    if (visitor.GetName()) {
        const Record record = Find(*visitor.GetName());
        return record != nullptr && visitor(*record);
    }
    return std::any_of(generalAppMap_.begin(), generalAppMap_.end(),
                       [&](const auto& entry) { return visitor(*entry.second); });
}

std::vector<AppStateInfo> GeneralApps::GetStates(const std::string& owner) {
    const LockGuard lock(mutex_);
    std::vector<AppStateInfo> states;
    for (const auto& [name, app] : generalAppMap_) {
        if (!owner.empty() && (app->owner_ != owner || app->IsPriority())) {
            continue;
        }
        states.push_back(App::MakeStateInfo(*app, App::PresentStateOf(*app), 0));
    }
    return states;
}

void GeneralApps::RaiseStartFault(const GeneralAppInfo& app) {
    faults_.Raise(App::GENERAL_APP_NODE, app.appName_, App::EVENT_START_FAILED, app.nodeType_);
}

}  // namespace ProcMgr
