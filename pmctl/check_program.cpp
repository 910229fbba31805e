#include "pmctl/check_program.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>
#include <vector>

#include "app/launch_checks.h"
#include "pmctl/near_word.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t FILES_MAX_COMPARED = 1000;  // names in the directory of an absent program
constexpr size_t HEAD_SIZE = 256;            // bytes of a program that are read

std::string ErrorText(int code) {
    return std::generic_category().message(code);
}

// "root:root 0755", in numbers.
std::string Rights(const struct stat& status) {
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "owner %u, group %u, mode %04o",
                  static_cast<unsigned>(status.st_uid), static_cast<unsigned>(status.st_gid),
                  static_cast<unsigned>(status.st_mode & 07777));
    return text.data();
}

// Whose process the program becomes.
struct Identity {
    uint32_t uid = 0;
    uint32_t gid = 0;
    const App::UserGroups& groups;

    // The check of the kernel: the bits of the owner, of the group or of all others count.
    bool MayExecute(const struct stat& status) const {
        if (uid == 0) {
            return S_ISDIR(status.st_mode) || (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
        }
        if (uid == status.st_uid) {
            return (status.st_mode & S_IXUSR) != 0;
        }
        const bool isMember =
            gid == status.st_gid || std::find(groups.groups.begin(), groups.groups.end(),
                                              status.st_gid) != groups.groups.end();
        return (status.st_mode & (isMember ? S_IXGRP : S_IXOTH)) != 0;
    }
};

// The program of that directory with the nearest name.
std::string NearestProgram(const CheckedEntry& entry, const std::string& path) {
    if (!entry.context.MayLookForHint()) {
        return {};
    }
    const std::filesystem::path wanted(path);
    const Image::Walk folder = entry.context.image.Follow(wanted.parent_path());
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator file(folder.hostPath, error);
    for (; !error && file != std::filesystem::directory_iterator() &&
           names.size() < FILES_MAX_COMPARED;
         file.increment(error)) {
        names.push_back(file->path().filename());
    }
    std::sort(names.begin(), names.end());
    const std::vector<std::string_view> known(names.begin(), names.end());
    return DidYouMean(wanted.filename().string(), known);
}

void ReportFailedWalk(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk) {
    if (walk.error == EACCES || walk.error == EPERM) {
        entry.Note("bin",
                   path + " cannot be looked at: " + walk.failed + ": " + ErrorText(walk.error),
                   "root can look at it");
    } else if (walk.error != ENOENT) {
        entry.Error("bin", path + " leads nowhere: " + walk.failed + ": " + ErrorText(walk.error));
    } else if (walk.failed == path) {
        entry.Error("bin", "there is no program " + path, NearestProgram(entry, path));
    } else {
        entry.Error("bin", "there is no program " + path, "there is no " + walk.failed);
    }
}

// What keeps the daemon from starting the program.
void ReportExecuteRight(const CheckedEntry& entry, const std::string& path,
                        const struct stat& status, App::ExecuteRight right) {
    const std::string user = "user " + std::to_string(entry.manifest.GetUid());
    const std::string file = path + " (" + Rights(status) + ')';
    switch (right) {
        case App::ExecuteRight::GRANTED:
            return;
        case App::ExecuteRight::NO_BIT:
            entry.Error("bin", file + " is not executable", "chmod a+x");
            return;
        case App::ExecuteRight::NO_OWNER_BIT:
            entry.Error("bin", user + " may not execute " + file, "chmod u+x");
            return;
        case App::ExecuteRight::NO_MEMBER:
            entry.Error("bin", user + " may not execute " + file,
                        "the user has to be in the group of the file; that everybody may execute "
                        "it is not enough");
            return;
        case App::ExecuteRight::NO_GROUP_BIT:
            entry.Error("bin", user + " may not execute " + file, "chmod g+x");
            return;
    }
}

// The first bytes of the program; empty when it cannot be read, which is no error.
std::string HeadOf(const std::string& hostPath) {
    const Wire::UniqueFd fd(open(hostPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    std::array<char, HEAD_SIZE> head{};
    const ssize_t got = fd.IsValid() ? read(fd.Get(), head.data(), head.size()) : 0;
    return {head.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))};
}

// The interpreter of a script, and programs that the kernel cannot execute.
void CheckFormat(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk) {
    const std::string head = HeadOf(walk.hostPath);
    if (walk.file.status.st_size == 0) {
        entry.Error("bin", path + " is empty");
    } else if (head.starts_with("#!")) {
        const size_t begin = std::min(head.find_first_not_of(" \t", 2), head.size());
        const size_t end = std::min(head.find_first_of(" \t\n", begin), head.size());
        const std::string interpreter = head.substr(begin, end - begin);
        const int error = entry.context.image.Follow(interpreter).error;
        if (error == ENOENT || error == ENOTDIR) {
            entry.Error("bin", "the interpreter '" + interpreter + "' of " + path + " is missing");
        }
    } else if (!head.empty() && !head.starts_with("\x7f"
                                                  "ELF")) {
        entry.Warn("bin", path + " is neither an ELF program nor a script that begins with #!");
    }
}

void CheckFolders(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk,
                  const Identity& identity) {
    std::set<std::string> seen;
    for (const Image::Step& folder : walk.folders) {
        if (seen.insert(folder.path).second && !identity.MayExecute(folder.status)) {
            entry.Error("bin", "user " + std::to_string(identity.uid) + " may not enter " +
                                   folder.path + " (" + Rights(folder.status) + ") on the way to " +
                                   path);
        }
    }
}

bool IsOnNoexec(const CheckedEntry& entry, const Image::Walk& walk) {
    struct statvfs system {};
    return entry.context.image.IsHere() && statvfs(walk.hostPath.c_str(), &system) == 0 &&
           (system.f_flag & ST_NOEXEC) != 0;
}

// The user's right to execute the program that has been found.
void CheckRight(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk,
                const Identity& identity) {
    const struct stat& status = walk.file.status;
    const App::ExecuteRight right = App::GetExecuteRight(status, identity.uid, identity.groups);
    ReportExecuteRight(entry, path, status, right);
    if (right == App::ExecuteRight::GRANTED && !identity.MayExecute(status)) {
        entry.Error("bin", "the kernel does not let user " + std::to_string(identity.uid) +
                               " execute " + path + " (" + Rights(status) + ')');
    }
    CheckFolders(entry, path, walk, identity);
}

void CheckFile(const CheckedEntry& entry, const std::string& path, const Identity* identity) {
    const Image::Walk walk = entry.context.image.Follow(path);
    if (walk.error != 0) {
        ReportFailedWalk(entry, path, walk);
        return;
    }
    if (!S_ISREG(walk.file.status.st_mode)) {
        entry.Error("bin", path + (S_ISDIR(walk.file.status.st_mode) ? " is a directory"
                                                                     : " is no regular file"));
        return;
    }
    if (identity != nullptr) {
        CheckRight(entry, path, walk, *identity);
    }
    if (IsOnNoexec(entry, walk)) {
        entry.Error("bin", path + " lies on a file system that is mounted with noexec");
    }
    CheckFormat(entry, path, walk);
}

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
        entry.Note("uid", name + " cannot be looked up: " + ErrorText(groups.error));
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
    CheckFile(entry, path, groups == nullptr && uid != 0 ? nullptr : &identity);
}

}  // namespace ProcMgr::Pmctl
