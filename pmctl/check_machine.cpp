#include "pmctl/check_machine.h"

#include <unistd.h>

#include <algorithm>
#include <map>
#include <vector>

#include "app/app_spec.h"
#include "resource/cgroup_mgr.h"
#include "resource/cgroup_paths.h"
#include "resource/core_affinity_mgr.h"
#include "resource/cpu_num.h"
#include "resource/cpuset_file.h"

namespace ProcMgr::Pmctl {
namespace {

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// The groups of the entry by key, each as the task that the daemon would put into it.
std::map<std::string, CgroupTaskInfo> TasksByKey(const ApplicationManifest& manifest) {
    std::map<std::string, CgroupTaskInfo> tasks;
    tasks["cpuset"].cpusetName = manifest.GetCpuset();
    tasks["resource_group"].cgroupName = manifest.GetResGroupName();
    tasks["cgroups"].cgroupPaths = manifest.GetCGroupPath();
    return tasks;
}

std::vector<std::string> GroupNames(const CgroupTaskInfo& task) {
    std::vector<std::string> names{task.cpusetName, task.cgroupName};
    for (const auto& [controller, group] : task.cgroupPaths) {
        names.push_back(group);
    }
    return names;
}

void CheckTask(const CheckedEntry& entry, const std::string& key, const CgroupTaskInfo& task) {
    for (const std::string& name : GroupNames(task)) {
        if (!name.empty() && !CgroupMgr::IsUsableGroup(name)) {
            entry.Warn(key, "the daemon leaves out the group '" + name + "': it holds '..'");
        }
    }
    if (!entry.context.image.IsHere()) {
        return;
    }
    for (const std::string& path : CgroupMgr().GetTaskPaths(task)) {
        if (!Exists(path)) {
            entry.Warn(key, "there is no control group " + path.substr(0, path.rfind('/')),
                       "the program runs without it");
        }
    }
}

// blkio groups are joined only where there is a controller for them.
void CheckBlkioGroup(const CheckedEntry& entry) {
    const std::string group = entry.manifest.GetBlkioGroupName();
    const std::string path = CGROUP_BLKIO_ROOT + group;
    if (CgroupMgr::IsUsableGroup(group) && entry.context.image.IsHere() &&
        Exists(CGROUP_BLKIO_ROOT) && !Exists(path + CGROUP_TASKS)) {
        entry.Warn("blkio_group", "there is no control group " + path,
                   "the program runs without it");
    }
}

bool HasAnyGroup(const ApplicationManifest& manifest) {
    return !manifest.GetCpuset().empty() || !manifest.GetResGroupName().empty() ||
           !manifest.GetCGroupPath().empty() || !manifest.GetBlkioGroupName().empty();
}

bool Contains(const std::vector<uint32_t>& cores, uint32_t core) {
    return std::find(cores.begin(), cores.end(), core) != cores.end();
}

}  // namespace

void CheckControlGroups(const CheckedEntry& entry) {
    if (!HasAnyGroup(entry.manifest)) {
        return;
    }
    const bool hasGroups = Exists(CGROUP_CPU_ROOT) || Exists(CGROUP_CPUSET_ROOT);
    if (!entry.context.image.IsHere() || !hasGroups) {
        if (!entry.context.hasGroupNote) {
            entry.Note("",
                       "control groups are not checked: this machine does not have the board's "
                       "control groups");
            entry.context.hasGroupNote = true;
        }
        return;
    }
    for (const auto& [key, task] : TasksByKey(entry.manifest)) {
        CheckTask(entry, key, task);
    }
    CheckBlkioGroup(entry);
}

void CheckCores(const CheckedEntry& entry) {
    const App::AppSpec spec(entry.manifest, entry.manifest.GetAppName());
    if (spec.coreAffinity_.empty()) {
        return;  // none, or the number that gives no cores
    }
    if (!entry.context.image.IsHere()) {
        if (!entry.context.hasCoreNote) {
            entry.Note("core_affinity", "cores are not checked: this machine is not the board");
            entry.context.hasCoreNote = true;
        }
        return;
    }
    const std::vector<uint32_t> ordinary = ReadCpusetFile(CTRL_CPUSET_CPUS);
    const std::vector<uint32_t> accelerator = ReadCpusetFile(AI_CPUSET_CPUS);
    for (const uint32_t core : spec.coreAffinity_) {
        if (!ordinary.empty() && !Contains(ordinary, core) && !Contains(accelerator, core)) {
            entry.Error("core_affinity", "core " + std::to_string(core) +
                                             " is neither in the cpuset CtrlCPU nor in AICPU: the "
                                             "daemon refuses the start");
        } else if (core >= CPU_NUM) {
            entry.Warn(
                "core_affinity",
                "this machine has no core " + std::to_string(core) + ": the daemon leaves it out",
                "the cores are 0 to " + std::to_string(CPU_NUM - 1));
        }
    }
}

}  // namespace ProcMgr::Pmctl
