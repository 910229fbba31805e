// The records of all containers, as resource control sees them: it gets copies, and asks again
// before it does anything to a process.
#pragma once

#include <functional>
#include <vector>

#include "app/app_info.h"
#include "resource/managed_apps.h"

namespace ProcMgr::App {

// Looks at a record; true ends the visit.
using RecordVisitor = std::function<bool(AppInfo& app)>;
// Shows every record to the visitor under its container's lock; true when the visitor ended it. The
// visitor neither blocks nor takes a lock.
using RecordContainer = std::function<bool(const RecordVisitor& visitor)>;

class ManagedRecords final : public ManagedApps {
public:
    // `isConfigured`: whether an application of this name is configured, with a record or without;
    // called with no lock held.
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
