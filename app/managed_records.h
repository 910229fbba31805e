// The records of all containers, for resource control. Resource control works on copies without a
// lock, so before it changes a process it asks here whether the process is still the same.
#pragma once

#include <functional>
#include <vector>

#include "app/app_info.h"
#include "resource/managed_apps.h"

namespace ProcMgr::App {

// Called for one record; true ends the visit.
using RecordVisitor = std::function<bool(AppInfo& app)>;
// Calls the visitor for every record of one container, under the lock of the container; true when
// the visitor ended the visit. The visitor must not wait or take a lock.
using RecordContainer = std::function<bool(const RecordVisitor& visitor)>;

// Callable from any thread without a container's lock.
class ManagedRecords final : public ManagedApps {
public:
    // `isConfigured` returns whether the configuration has an application of this name, even when
    // there is no record of it; called with no lock held.
    ManagedRecords(std::vector<RecordContainer> containers,
                   std::function<bool(const std::string& name)> isConfigured)
        : containers_(std::move(containers)), isConfigured_(std::move(isConfigured)) {}

    std::vector<ManagedApp> GetManagedApps(ManagedFilter filter) override;
    bool IsPresent(const ManagedApp& app) override;
    void NoteTids(const ManagedApp& app, const std::set<int32_t>& tids) override;
    std::optional<std::string> GetNameOf(int32_t pid) override;
    bool HasProcess(const std::string& name) override;
    bool IsKnown(const std::string& name) override;

private:
    bool Visit(const RecordVisitor& visitor) const;

    const std::vector<RecordContainer> containers_;
    const std::function<bool(const std::string& name)> isConfigured_;
};

}  // namespace ProcMgr::App
