// The records of all containers, for resource control. Resource control works on copies without a
// lock, so before it changes a process it asks here whether the process is still the same.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/app_info.h"
#include "resource/managed_apps.h"

namespace ProcMgr::App {

// Called for each record that it wants to see; true ends the visit.
class RecordVisitor {
public:
    using Call = std::function<bool(AppInfo& app)>;

    // Wants to see every record.
    static RecordVisitor ForAll(Call call) { return RecordVisitor(std::move(call)); }
    // Wants to see the records of priority applications, and may be shown others.
    static RecordVisitor ForPriority(Call call) {
        RecordVisitor visitor(std::move(call));
        visitor.isForPriority_ = true;
        return visitor;
    }
    // These want to see one record: the one of that name, or the one whose live process is `pid`.
    static RecordVisitor ForName(const std::string& name, Call call) {
        RecordVisitor visitor(std::move(call));
        visitor.name_ = name;
        return visitor;
    }
    static RecordVisitor ForProcess(int32_t pid, Call call) {
        RecordVisitor visitor(std::move(call));
        visitor.pid_ = pid;
        return visitor;
    }

    const std::optional<std::string>& GetName() const { return name_; }
    const std::optional<int32_t>& GetPid() const { return pid_; }
    bool IsForPriority() const { return isForPriority_; }

    bool operator()(AppInfo& app) const { return call_(app); }

private:
    explicit RecordVisitor(Call call) : call_(std::move(call)) {}

    Call call_;
    std::optional<std::string> name_;
    std::optional<int32_t> pid_;
    bool isForPriority_ = false;
};

// Calls the visitor for the records of one container that it wants to see, under the lock of the
// container; true when the visitor ended the visit. The visitor must not wait or take a lock.
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
