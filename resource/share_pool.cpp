#include "resource/share_pool.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "main/common/log.h"
#include "main/common/numbers.h"
#include "main/common/paths.h"
#include "platform/device.h"

namespace ProcMgr {
namespace {

constexpr size_t NAME_LENGTH_MAX = 63;
constexpr size_t GROUPS_MAX = 256;
constexpr const char* ACCESS_READ = "read";
constexpr const char* ACCESS_READ_WRITE = "read-write";
constexpr uint32_t DONE = 0;
// The start-up goes on after this time even if the device has not created all groups yet.
constexpr std::chrono::seconds CREATE_PATIENCE{1};

// Names with commas between them are passed to programs in an environment variable, so a name holds
// neither a comma nor a blank.
bool IsUsableName(const std::string& name) {
    return !name.empty() && name.size() <= NAME_LENGTH_MAX &&
           std::all_of(name.begin(), name.end(),
                       [](char c) { return c > ' ' && c < 0x7f && c != ',' && c != '/'; });
}

std::string TextOf(const KvsTypeYaml& node, const std::string& key) {
    KvsTypeYaml value;
    return node.GetSubKvs(key, value) ? value.GetString() : std::string();
}

// The size in bytes; 0 for a text that is not a number.
uint64_t ParseSize(const std::string& text) {
    return ParseNumber<uint64_t>(text).value_or(0);
}

// The access of each member, by application. Nothing when an entry has no application or an unknown
// access.
std::optional<std::map<std::string, std::string>> ReadMembers(const KvsTypeYaml& group) {
    std::map<std::string, std::string> members;
    KvsTypeYaml list;
    if (!group.GetSubKvs("members", list)) {
        return members;
    }
    KvsTypeYaml entry;
    for (size_t index = 0; list.GetElement(index, entry); ++index) {
        const std::string app = TextOf(entry, "app");
        const std::string access = TextOf(entry, "access");
        if (app.empty() || (access != ACCESS_READ && access != ACCESS_READ_WRITE)) {
            return std::nullopt;
        }
        members.insert_or_assign(app, access);
    }
    return members;
}

std::vector<std::string> ListFiles(const std::string& directory) {
    std::vector<std::string> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::filesystem::path& path = entry->path();
        if (path.extension() == ".yaml" || path.extension() == ".yml") {
            files.push_back(path.string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

std::string SharePoolPlan::Names() const {
    std::string names;
    for (const Group& group : groups) {
        names += (names.empty() ? "" : ",") + group.name;
    }
    return names;
}

void SharePool::Load(const std::string& directory) {
    std::error_code error;
    if (!std::filesystem::exists(directory, error)) {
        return;
    }
    if (!IsRootsAlone(directory)) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : share pool %s may be written by others than root, it is ignored",
                   directory.c_str());
        return;
    }
    for (const std::string& path : ListFiles(directory)) {
        LoadFile(path);
    }
    device_.Post([this] { CreateGroups(); });
    device_.Drain(std::chrono::steady_clock::now() + CREATE_PATIENCE);
}

void SharePool::CreateGroups() const {
    for (const auto& [name, group] : groups_) {
        const uint32_t ret = halGrpCreate(name.c_str(), group.size);
        if (ret != DONE) {
            ProcMgrLog(LOG_ERR, "PROCMGR : halGrpCreate group=%s failed, ret=%u", name.c_str(),
                       ret);
        }
    }
}

void SharePool::LoadFile(const std::string& path) {
    KvsTypeYaml top;
    KvsTypeYaml list;
    if (!IsRootsAlone(path)) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : share pool %s may be written by others than root, it is ignored",
                   path.c_str());
        return;
    }
    if (!top.InitYamlNode(path) || !top.GetSubKvs("groups", list)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : share pool %s has no groups that can be read", path.c_str());
        return;
    }
    KvsTypeYaml group;
    for (size_t index = 0; list.GetElement(index, group); ++index) {
        LoadGroup(group, path);
    }
}

void SharePool::LoadGroup(const KvsTypeYaml& node, const std::string& path) {
    const std::string name = TextOf(node, "name");
    const uint64_t size = ParseSize(TextOf(node, "size"));
    auto members = ReadMembers(node);
    if (!IsUsableName(name) || size == 0 || !members || groups_.size() == GROUPS_MAX) {
        ProcMgrLog(LOG_ERR, "PROCMGR : share pool %s: group=%s is not usable", path.c_str(),
                   name.c_str());
        return;
    }
    if (!groups_.try_emplace(name, Group{size, std::move(*members)}).second) {
        ProcMgrLog(LOG_ERR, "PROCMGR : share pool %s: group=%s is configured already", path.c_str(),
                   name.c_str());
    }
}

SharePoolPlan SharePool::MakePlan(
    const std::string& appName,
    const std::vector<std::pair<std::string, std::string>>& manifestGroups) const {
    SharePoolPlan plan;
    for (const auto& [name, group] : groups_) {
        const auto member = group.members.find(appName);
        if (member != group.members.end()) {
            plan.groups.push_back({name, member->second});
            plan.isPreconfigured = true;
        }
    }
    for (const auto& wanted : manifestGroups) {
        const bool isConfigured =
            std::any_of(plan.groups.begin(), plan.groups.end(),
                        [&](const auto& group) { return group.name == wanted.first; });
        if (!IsUsableName(wanted.first)) {
            ProcMgrLog(LOG_ERR, "PROCMGR : share pool group=%s of app=%s is not usable",
                       wanted.first.c_str(), appName.c_str());
        } else if (!isConfigured) {
            plan.groups.push_back({wanted.first, wanted.second});
        }
    }
    return plan;
}

void SharePool::Join(const std::string& appName, int32_t pid, const SharePoolPlan& plan) {
    for (const SharePoolPlan::Group& group : plan.groups) {
        {
            const LockGuard lock(mutex_);
            if (!joined_[pid].try_emplace(group.name, false).second) {
                continue;
            }
        }
        if (!device_.Post([=, this] { Add(appName, pid, group); })) {
            ProcMgrLog(LOG_ERR, "PROCMGR : app=%s, pid=%d, group=%s: the device has too many jobs",
                       appName.c_str(), pid, group.name.c_str());
            Leave(pid, group.name);
        }
    }
}

void SharePool::Add(const std::string& appName, int32_t pid, const SharePoolPlan::Group& group) {
    // The process may have ended since Join, and its pid may belong to another process now.
    if (!IsWanted(pid, group.name)) {
        return;
    }
    const uint32_t ret = halGrpAddProc(group.name.c_str(), pid, group.access.c_str());
    if (ret != DONE) {
        ProcMgrLog(LOG_ERR, "PROCMGR : halGrpAddProc app=%s, pid=%d, group=%s failed, ret=%u",
                   appName.c_str(), pid, group.name.c_str(), ret);
        Leave(pid, group.name);
        return;
    }
    const LockGuard lock(mutex_);
    const auto groups = joined_.find(pid);
    if (groups != joined_.end() && groups->second.contains(group.name)) {
        groups->second[group.name] = true;
    }
}

bool SharePool::IsWanted(int32_t pid, const std::string& group) {
    const LockGuard lock(mutex_);
    const auto groups = joined_.find(pid);
    return groups != joined_.end() && groups->second.contains(group);
}

void SharePool::Leave(int32_t pid, const std::string& group) {
    const LockGuard lock(mutex_);
    const auto joined = joined_.find(pid);
    if (joined != joined_.end()) {
        joined->second.erase(group);
    }
}

void SharePool::WaitForJoins(SteadyTime end) {
    MayWait("the device");
    device_.Drain(end);
}

std::vector<std::string> SharePool::GetGroupsOf(int32_t pid) {
    std::vector<std::string> groups;
    const LockGuard lock(mutex_);
    const auto known = joined_.find(pid);
    if (known != joined_.end()) {
        for (const auto& [group, isJoined] : known->second) {
            if (isJoined && groups_.contains(group)) {
                groups.push_back(group);
            }
        }
    }
    return groups;
}

void SharePool::Forget(int32_t pid) {
    const LockGuard lock(mutex_);
    joined_.erase(pid);
}

}  // namespace ProcMgr
