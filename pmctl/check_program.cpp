#include "pmctl/check_program.h"

#include <algorithm>
#include <system_error>
#include <vector>

#include "app/launch_checks.h"

namespace ProcMgr::Pmctl {
namespace {

// Null when the user cannot be told; the finding has been added then.
const App::UserGroups* CheckUser(const CheckedEntry& entry) {
    BoardUsers& users = entry.context.users;
    const uint32_t uid = entry.manifest.GetUid();
    if (!users.IsKnown()) {
        if (!entry.context.hasUserNote) {
            entry.Note("uid",
                       "users and groups are not checked: the image has no /etc/passwd and "
                       "/etc/group that can be read");
            entry.context.hasUserNote = true;
        }
        return nullptr;
    }
    const App::UserGroups& groups = users.GroupsOf(uid);
    const std::string name = "user " + std::to_string(uid);
    if (groups.result == App::UserGroups::Result::NO_USER && groups.error == 0) {
        entry.Error("uid", "the user database has no " + name +
                               ": the daemon cannot start a process of it");
    } else if (groups.result == App::UserGroups::Result::NO_USER) {
        entry.Note("uid",
                   name + " cannot be looked up: " + std::generic_category().message(groups.error));
    } else if (groups.result == App::UserGroups::Result::TOO_MANY) {
        entry.Error("uid",
                    name + " is in more than " + std::to_string(App::USER_GROUPS_MAX) + " groups");
    }
    if (entry.Has("gid") && !users.HasGroup(entry.manifest.GetGid())) {
        entry.Warn("gid",
                   "the user database has no group " + std::to_string(entry.manifest.GetGid()));
    }
    return groups.result == App::UserGroups::Result::FOUND ? &groups : nullptr;
}

void CheckArguments(const CheckedEntry& entry) {
    const std::vector<std::string> arguments = entry.manifest.GetArguments();
    const bool isReplaced =
        !entry.IsService() && entry.manifest.GetIsDynamicPara() &&
        std::any_of(arguments.begin(), arguments.end(), ParseAndDepend::IsDynamicPara);
    for (size_t i = 0; !isReplaced && i < arguments.size(); ++i) {
        if (App::IsIllegalArgument(arguments[i])) {
            entry.Error("args", "argument " + std::to_string(i + 1) +
                                    " holds a character of the shell, "
                                    "one of | ; > < ` & ( ) $: the daemon refuses the start");
        }
    }
}

}  // namespace

void CheckProgram(const CheckedEntry& entry) {
    CheckArguments(entry);
    const App::UserGroups* groups = CheckUser(entry);
    const std::string path = entry.manifest.GetBinPath();
    if (path.empty()) {
        return;  // an error of the file
    }
    if (ParseAndDepend::IsDynamicPara(path)) {
        const bool isSupplied = !entry.IsService() && entry.manifest.GetIsDynamicPara();
        if (!isSupplied) {
            entry.Error("bin", "the pattern has no effect, so there is no such program",
                        entry.IsService() ? "only applications have patterns"
                                          : "it takes effect with 'dynamic: true'");
        }
        return;
    }
    const uint32_t uid = entry.manifest.GetUid();
    const uint32_t gid = entry.Has("gid") || groups == nullptr
                             ? entry.manifest.GetGid()
                             : entry.context.users.PrimaryGroupOf(uid);
    static const App::UserGroups NONE;
    const Identity identity{uid, gid, groups == nullptr ? NONE : *groups};
    CheckProgramFile(entry, path, groups == nullptr && uid != 0 ? nullptr : &identity);
}

}  // namespace ProcMgr::Pmctl
