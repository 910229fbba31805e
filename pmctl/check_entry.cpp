#include "pmctl/check_entry.h"

#include <array>
#include <string>

#include "app/app_spec.h"

namespace ProcMgr::Pmctl {
namespace {

struct WrongList {
    const char* key;
    bool isForServices;  // else for applications
    const char* hint;
};

constexpr std::array WRONG_LISTS = {
    WrongList{"reporting", true, "only base services report their own state"},
    WrongList{"depends", true, "only base services are started in the order of their dependencies"},
    WrongList{"startup_entry", true, ""},
    WrongList{"nice", false, ""},
    WrongList{"sharepool_groups", false, ""},
    WrongList{"dynamic", false, "only requests for applications supply values"},
};

void CheckLists(const CheckedEntry& entry) {
    for (const WrongList& row : WRONG_LISTS) {
        if (entry.Has(row.key) && row.isForServices != entry.IsService()) {
            entry.Warn(row.key,
                       entry.IsService() ? "has no effect on a service"
                                         : "has no effect on an application",
                       row.hint);
        }
    }
}

// The daemon's own reading of the texts.
void CheckRealTime(const CheckedEntry& entry) {
    const App::AppSpec spec(entry.manifest, entry.manifest.GetAppName());
    const std::string priority = entry.manifest.GetSetRtPrio();
    const std::string type = entry.manifest.GetSetRtType();
    const bool isWanted = !priority.empty() && priority != "false";
    if (isWanted && !spec.rtEnable_) {
        entry.Warn("set_rt_prio",
                   "'" + priority + "' with set_rt_type '" + type + "' has no effect",
                   "expected true, or 1 to 99 with set_rt_type SCHED_FIFO or SCHED_RR");
    } else if (!isWanted && !type.empty()) {
        entry.Warn("set_rt_type", "has no effect without set_rt_prio");
    }
}

void CheckPriority(const CheckedEntry& entry) {
    const ApplicationManifest& manifest = entry.manifest;
    if (manifest.GetStartupPriority() == App::AppSpec::NO_PRIORITY) {
        return;
    }
    if (entry.IsService()) {
        entry.Warn("startup_priority", "does not change when a service is started",
                   "services start in the order of 'depends', only applications by priority");
        return;
    }
    if (!manifest.GetMatchData().empty()) {
        entry.Warn("match", "a priority application with match data is not started at boot",
                   "what is read at boot carries no match data");
    }
    if (manifest.GetIsDynamicPara() && ParseAndDepend::IsDynamicPara(manifest.GetBinPath())) {
        entry.Error("bin",
                    "nobody supplies the program of a priority application at boot, so the "
                    "start fails");
    }
}

void CheckSharePool(const CheckedEntry& entry) {
    for (const auto& [group, access] : entry.manifest.GetSharepoolGroups()) {
        if (access != "read" && access != "read-write") {
            std::string what = "the access '";
            what.append(access).append("' of the group '").append(group);
            entry.Warn("sharepool_groups", what.append("' is not one that the device knows"),
                       "read or read-write");
        }
    }
}

}  // namespace

void CheckEffects(const CheckedEntry& entry) {
    CheckLists(entry);
    CheckRealTime(entry);
    CheckPriority(entry);
    CheckSharePool(entry);
}

}  // namespace ProcMgr::Pmctl
