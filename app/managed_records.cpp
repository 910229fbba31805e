#include "app/managed_records.h"

#include <algorithm>

namespace ProcMgr::App {
namespace {

bool IsWanted(const AppInfo& app, ManagedFilter filter) {
    switch (filter) {
        case ManagedFilter::ALL:
            return true;
        case ManagedFilter::DELAYED:
            return app.isDelayCoreAffinity_;
        case ManagedFilter::RUNNING_PRIORITY:
            return app.IsPriority() && app.GetState() == RUNNING;
    }
    return false;
}

// Whether the record still has the process of the copy.
bool IsSame(const AppInfo& record, const ManagedApp& app) {
    return record.pid_ == app.pid && record.startTime_ == app.startTime && record.IsAlive();
}

ManagedApp MakeManagedApp(const AppInfo& app) {
    ManagedApp managed;
    managed.name = app.appName_;
    managed.pid = app.pid_;
    managed.startTime = app.startTime_;
    managed.cores = app.coreAffinity_;
    managed.cpuset = app.groups_->cpuset_;
    managed.cpuGroup = app.groups_->resGroupName_;
    managed.blkioGroup = app.groups_->blkioGroupName_;
    managed.isDelayed = app.isDelayCoreAffinity_;
    managed.notedTids = app.tids_;
    return managed;
}

}  // namespace

bool ManagedRecords::Visit(const RecordVisitor& visitor) const {
    return std::any_of(containers_.begin(), containers_.end(),
                       [&](const RecordContainer& container) { return container(visitor); });
}

std::vector<ManagedApp> ManagedRecords::GetManagedApps(ManagedFilter filter) {
    std::vector<ManagedApp> apps;
    const auto add = [&](const AppInfo& app) {
        if (IsWanted(app, filter) && app.IsAlive()) {
            apps.push_back(MakeManagedApp(app));
        }
        return false;
    };
    Visit(filter == ManagedFilter::RUNNING_PRIORITY ? RecordVisitor::ForPriority(add)
                                                    : RecordVisitor::ForAll(add));
    return apps;
}

bool ManagedRecords::IsPresent(const ManagedApp& app) {
    return Visit(RecordVisitor::ForProcess(
        app.pid, [&](const AppInfo& record) { return IsSame(record, app); }));
}

void ManagedRecords::NoteTids(const ManagedApp& app, const std::set<int32_t>& tids) {
    std::set<int32_t> noted = tids;
    Visit(RecordVisitor::ForProcess(app.pid, [&](AppInfo& record) {
        const bool isFound = IsSame(record, app);
        if (isFound) {
            record.tids_.swap(noted);
        }
        return isFound;
    }));
}

std::optional<std::string> ManagedRecords::GetNameOf(int32_t pid) {
    std::optional<std::string> name;
    Visit(RecordVisitor::ForProcess(pid, [&](const AppInfo& record) {
        name = record.appName_;
        return true;
    }));
    return name;
}

bool ManagedRecords::HasProcess(const std::string& name) {
    return Visit(
        RecordVisitor::ForName(name, [](const AppInfo& record) { return record.IsAlive(); }));
}

bool ManagedRecords::IsKnown(const std::string& name) {
    return Visit(RecordVisitor::ForName(name, [](const AppInfo&) { return true; })) ||
           isConfigured_(name);
}

}  // namespace ProcMgr::App
